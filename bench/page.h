// The report's page of a large platform: its size, and how soon a browser has drawn it.
#ifndef BENCH_PAGE_H
#define BENCH_PAGE_H

#include "tests/support/sandbox.h"

// Rows for the page of the platform in this sandbox, of 100,000 accounts. Without a browser, the
// row of the drawing is left out, and standard error says so.
void add_page(const support::sandbox &box);

#endif
