// The information area as an encoder publishes it: encoder_area KIND:CHANNEL... (KIND jpg or mp4), one
// streaming profile per argument (infoParam3 1 for jpg), a budget of 10 units; prints "published" and
// keeps the area until SIGTERM or SIGINT.
#include <avpool/infos.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    InfosPutter area;
    area.init(INFOS_KEY);
    area.putSizeofPools(argc - 1);
    area.putMaxConn(10);
    for (int p = 1; p < argc; ++p)
        area.putInfo(p - 1, 2, atoi(strchr(argv[p], ':') + 1), strncmp(argv[p], "jpg:", 4) == 0 ? 1 : 0);
    printf("published\n");
    fflush(stdout);
    int signal = 0;
    sigwait(&stop, &signal);
}
