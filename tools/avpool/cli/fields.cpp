#include "cli/fields.h"

#include <cstdio>
#include <cstring>

namespace avpool::cli {

namespace {

void printName(const char* name) {
    int pad = FIELD_COLUMN - 1 - static_cast<int>(strlen(name));
    printf("%s:%*s", name, pad > 1 ? pad : 1, "");
}

}  // namespace

void printFields(std::initializer_list<Field> fields) {
    for (const Field& field : fields) {
        printName(field.name);
        printf("%d\n", field.value);
    }
}

void printTextField(const char* name, const std::string& text) {
    printName(name);
    size_t start = 0;
    for (;;) {
        size_t end = text.find('\n', start);
        printf("%s\n", text.substr(start, end - start).c_str());
        if (end == std::string::npos || end + 1 == text.size()) return;
        start = end + 1;
        printf("%*s", FIELD_COLUMN, "");
    }
}

}  // namespace avpool::cli
