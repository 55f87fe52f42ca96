#pragma once
// Which vector instructions this processor runs, asked once. x86-64 always has SSE2; AVX2 paths
// are chosen at run time where they pay.

namespace tarvolin::platform {

bool hasAvx2();

}  // namespace tarvolin::platform
