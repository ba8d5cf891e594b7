// The library's version record and its query.
#include "frame/frame.hpp"

namespace {
const zelLibVersion s_libVer = {
    7, 1, 1, 37466, {'w', '7', 0, 0}, "zelm SSE2 (w7)", "7.1.1 (r37466)", "Sep 24 2012",
};
}  // namespace

extern "C" ZEL_INTERNAL const zelLibVersion* w7_zelmGetLibVersion(void) { return &s_libVer; }
