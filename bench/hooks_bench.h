// Rebinding imported symbols, against a plain pass over the same tables and against look-ups in a map.
#pragma once

#include "report.h"

namespace bench {

void measureHooks(Report& report);

}  // namespace bench
