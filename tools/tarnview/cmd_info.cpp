#include <cstdio>

#include "tools/tarnview/commands.h"

namespace tarnview {

int RunInfo(const Args&) {
    std::fprintf(stderr, "tarnview info: not available yet\n");
    return 1;
}

}  // namespace tarnview
