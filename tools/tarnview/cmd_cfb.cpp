#include <cstdio>

#include "tools/tarnview/commands.h"

namespace tarnview {

int RunCfb(const Args&) {
    std::fprintf(stderr, "tarnview cfb: not available yet\n");
    return 1;
}

}  // namespace tarnview
