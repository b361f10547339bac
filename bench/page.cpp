// Measures the page of a large platform: its size, and how long a browser takes to draw it.
#include "bench/page.h"

#include <cstdio>
#include <filesystem>

#include "bench/ratio.h"
#include "tests/support/browser.h"

namespace {

// Seconds from the first byte to the finished picture, by the page's own clock. The best of some
// runs: whatever else the machine does makes the others longer.
double drawing_time(const std::string &path) {
  double best = 1e9;
  support::browser browser;
  for (int run = 0; run < 5; ++run) {
    browser.open(path);
    const std::string drawn = browser.value("performance.getEntriesByName('drawn')[0].startTime");
    best = std::min(best, std::stod(drawn) / 1000);
  }
  return best;
}

}  // namespace

void add_page(const support::sandbox &box) {
  const std::string path = box.path("page.html");
  if (box.run_report({"page", path}).status != 0) throw std::runtime_error("no page was written");
  const auto size = static_cast<double>(std::filesystem::file_size(path));
  ratio::bound("page of 100,000 accounts", "MiB", size / 1024 / 1024, 15);
  if (support::browser::exists()) {
    ratio::bound("the page drawn in headless Chromium", "s", drawing_time(path), 2);
  } else {
    std::fputs("bench: without chromium-headless-shell, the page is not drawn\n", stderr);
  }
}
