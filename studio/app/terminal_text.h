// Text from strangers, made safe to look at.
#pragma once

#include <string>
#include <string_view>

namespace studio {

/// `text` with everything shown, as <U+XXXX>, that acts on a terminal, changes the direction of writing or is
/// not to be seen. Bytes that are not UTF-8 become U+FFFD.
std::string printable(std::string_view text);

/// The same for JSON, whose strings stay what they are: shown as \uXXXX.
std::string printableJson(std::string_view json);

}  // namespace studio
