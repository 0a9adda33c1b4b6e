// What nobody guesses.
#pragma once

#include <string>

namespace studio {

/// 128 random bits as 32 hexadecimal digits. Throws std::runtime_error where the system gives none.
std::string unguessable();

}  // namespace studio
