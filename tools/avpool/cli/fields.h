// "name:" padded to one column, then the value: the layout of the inspecting
// verbs' header lines. A name too long for the column gets a single space.
#pragma once

#include <initializer_list>
#include <string>

namespace avpool::cli {

constexpr int FIELD_COLUMN = 18;  // where every value starts

struct Field {
    const char* name;
    int value;
};

void printFields(std::initializer_list<Field> fields);
// A text value; every further line of it starts at the value column too.
void printTextField(const char* name, const std::string& text);

}  // namespace avpool::cli
