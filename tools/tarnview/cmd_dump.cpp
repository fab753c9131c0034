#include <cstdio>

#include "tools/tarnview/commands.h"

namespace tarnview {

int RunDump(const Args&) {
    std::fprintf(stderr, "tarnview dump: not available yet\n");
    return 1;
}

}  // namespace tarnview
