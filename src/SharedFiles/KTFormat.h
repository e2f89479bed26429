#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

/// One argument of a format: nothing (printed as "(null)"), text, a signed or
/// unsigned integer, or a floating-point number.
class KTArg {
public:
    KTArg() = default;
    KTArg(std::nullptr_t) {}
    KTArg(const std::string& s) : v_(s) {}
    KTArg(std::string_view s) : v_(std::string(s)) {}
    KTArg(const char* s) {
        if (s) v_ = std::string(s);
    }
    KTArg(bool b) : v_(static_cast<std::int64_t>(b)) {}
    template <class T, std::enable_if_t<std::is_integral_v<T> && std::is_signed_v<T> &&
                                            !std::is_same_v<T, bool> && !std::is_same_v<T, char>,
                                        int> = 0>
    KTArg(T i) : v_(static_cast<std::int64_t>(i)) {}
    template <class T, std::enable_if_t<std::is_integral_v<T> && std::is_unsigned_v<T> &&
                                            !std::is_same_v<T, bool>,
                                        int> = 0>
    KTArg(T u) : v_(static_cast<std::uint64_t>(u)) {}
    KTArg(char c) : v_(static_cast<std::int64_t>(c)) {}
    KTArg(double d) : v_(d) {}
    KTArg(float f) : v_(static_cast<double>(f)) {}

    using Value = std::variant<std::monostate, std::string, std::int64_t, std::uint64_t, double>;
    const Value& value() const { return v_; }

private:
    Value v_;
};

/// The platform's format family ("%@", "%i", "%li", "%s", "%d", "%0.2f",
/// "%%", ...) with typed arguments instead of C varargs, so a conversion that
/// does not match its argument prints the argument rather than reading garbage,
/// and a missing argument prints nothing.
class KTFormat {
public:
    static std::string format(std::string_view fmt, const std::vector<KTArg>& args);

    template <class... A>
    static std::string str(std::string_view fmt, const A&... args) {
        return format(fmt, std::vector<KTArg>{KTArg(args)...});
    }
};
