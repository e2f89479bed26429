#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// Looks at the bytes of a property list before libplist does, and refuses
/// what libplist cannot take safely: nesting it would recurse through until
/// the stack runs out, strings and keys with a zero character (libplist
/// asserts on them), references and lengths that point past the end, loops
/// of references, and binary lists whose shared containers would expand far
/// beyond their size. Plug-ins ship these files; none of them is trusted.
///
/// The check answers nothing for bytes libplist may parse (including bytes
/// that are simply not a property list: libplist refuses those itself), or
/// a short reason for the log.
class KTPlistGuard {
  public:
    /// Far beyond any real plug-in, well within every thread's stack.
    static constexpr std::size_t kMaxDepth = 256;

    static std::optional<std::string> refusal(std::string_view bytes);
    static std::optional<std::string> binaryRefusal(std::string_view bytes);
    static std::optional<std::string> xmlRefusal(std::string_view bytes);
};
