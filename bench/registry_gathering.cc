// Times the handler gathering of one delivery (open, tune, five getters,
// close) against one registry file, and prints the median in microseconds.
// Built and run by registry_gathering.sh; not part of the main build.
//
// usage: registry_gathering REGISTRY ITERATIONS
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "handlers/registry.h"

namespace {

double nowMicroseconds() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s REGISTRY ITERATIONS\n", argv[0]);
        return 2;
    }
    mh_set_db_path(argv[1]);
    int iterations = atoi(argv[2]);
    char empty[] = "";
    char sender[] = "bench-sender@bench-from.org";
    char recipient[] = "bench-rcpt@bench-to.org";
    char *addresses[] = {empty, empty, sender, recipient, nullptr};

    std::vector<double> samples;
    size_t gathered = 0;
    for (int i = -iterations / 10; i < iterations; i++) {  // the first tenth warms the page cache
        HandlerList list;
        double start = nowMicroseconds();
        int rc = mh_get_handlers(&list, addresses, 2);
        double elapsed = nowMicroseconds() - start;
        if (rc < 0) {
            fprintf(stderr, "gathering failed on %s\n", argv[1]);
            return 1;
        }
        gathered = list.records.size();
        mh_list_free(&list);
        if (i >= 0)
            samples.push_back(elapsed);
    }
    std::sort(samples.begin(), samples.end());
    printf("%.1f %zu\n", samples[samples.size() / 2], gathered);
    return 0;
}
