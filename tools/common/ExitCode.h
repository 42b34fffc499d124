#ifndef KORVEXD_EXIT_CODE_H
#define KORVEXD_EXIT_CODE_H

namespace korvexd {

constexpr int kExitDone = 0;
constexpr int kExitFailed = 1;
constexpr int kExitWrongUsage = 2;

}  // namespace korvexd

#endif
