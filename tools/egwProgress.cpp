// The progress bar of long work: generating, loading, printing or exporting a panel of hundreds of
// thousands of elements. Drawn on standard error only when that is a terminal, so that logs and
// pipes get nothing but the answer.
#include <cstdio>

#include <unistd.h>

#include "tools/egwTool.h"

namespace egwtool
{

namespace
{
constexpr int kWidth = 30;
}

ProgressBar::ProgressBar(const char* label) : label_(label), shown_(isatty(STDERR_FILENO) == 1)
{
}

ProgressBar::~ProgressBar()
{
    if (shown_ && drawn_ >= 0)
    {
        std::fprintf(stderr, "\r%*s\r", kWidth + 40, "");
        std::fflush(stderr);
    }
}

void ProgressBar::step(double done)
{
    const int percent = done <= 0 ? 0 : done >= 1 ? 100 : static_cast<int>(done * 100);
    if (!shown_ || percent == drawn_)
    {
        return;
    }
    drawn_ = percent;
    const int filled = percent * kWidth / 100;
    std::fprintf(stderr, "\r%s [%.*s%*s] %3d%%", label_, filled, "##############################",
                 kWidth - filled, "", percent);
    std::fflush(stderr);
}

} // namespace egwtool
