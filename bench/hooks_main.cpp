// The rows about the hooks alone: they need neither the service nor a studio.
#include "hooks_bench.h"

int main() {
  bench::Report report;
  bench::measureHooks(report);
  report.print();
}
