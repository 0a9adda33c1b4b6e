// Rebinding imported symbols, against a plain pass over the same tables.
#pragma once

#include "report.h"

namespace bench {

void measureHooks(Report& report);

}  // namespace bench
