#include "SharedFiles/KTFormat.h"

#include <cinttypes>
#include <cstdio>

namespace {

std::string describe(const KTArg::Value& v) {
    struct {
        std::string operator()(std::monostate) const { return "(null)"; }
        std::string operator()(const std::string& s) const { return s; }
        std::string operator()(std::int64_t i) const { return std::to_string(i); }
        std::string operator()(std::uint64_t u) const { return std::to_string(u); }
        std::string operator()(double d) const {
            char buf[64];
            std::snprintf(buf, sizeof buf, "%g", d);
            return buf;
        }
    } visitor;
    return std::visit(visitor, v);
}

std::string printfOne(const std::string& conversion, char conv, const KTArg::Value& v) {
    char buf[512];
    std::string f = conversion;
    switch (conv) {
        case 'd':
        case 'i':
        case 'u':
        case 'x':
        case 'X':
        case 'o':
        case 'c': {
            long long i = 0;
            if (auto p = std::get_if<std::int64_t>(&v))
                i = *p;
            else if (auto q = std::get_if<std::uint64_t>(&v))
                i = static_cast<long long>(*q);
            else if (auto d = std::get_if<double>(&v))
                i = static_cast<long long>(*d);
            else
                return describe(v);
            if (conv == 'c') {
                f += 'c';
                std::snprintf(buf, sizeof buf, f.c_str(), static_cast<int>(i));
            } else {
                f += "ll";
                f += conv;
                if (conv == 'd' || conv == 'i')
                    std::snprintf(buf, sizeof buf, f.c_str(), i);
                else
                    std::snprintf(buf, sizeof buf, f.c_str(), static_cast<unsigned long long>(i));
            }
            return buf;
        }
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G': {
            double d = 0;
            if (auto p = std::get_if<double>(&v))
                d = *p;
            else if (auto i = std::get_if<std::int64_t>(&v))
                d = static_cast<double>(*i);
            else if (auto u = std::get_if<std::uint64_t>(&v))
                d = static_cast<double>(*u);
            else
                return describe(v);
            f += conv;
            std::snprintf(buf, sizeof buf, f.c_str(), d);
            return buf;
        }
        case 's':
        case '@':
        default: {
            std::string s = describe(v);
            if (f.size() <= 1) return s;  // no width or precision: no copy through printf
            f += 's';
            int n = std::snprintf(nullptr, 0, f.c_str(), s.c_str());
            std::string out(n > 0 ? n : 0, '\0');
            std::snprintf(out.data(), out.size() + 1, f.c_str(), s.c_str());
            return out;
        }
    }
}

}  // namespace

std::string KTFormat::format(std::string_view fmt, const std::vector<KTArg>& args) {
    std::string out;
    out.reserve(fmt.size() + 16 * args.size());
    std::size_t next = 0;
    for (std::size_t i = 0; i < fmt.size(); ++i) {
        char c = fmt[i];
        if (c != '%') {
            out += c;
            continue;
        }
        if (i + 1 >= fmt.size()) {  // a lone trailing "%" is dropped, as printf does
            break;
        }
        if (fmt[i + 1] == '%') {
            out += '%';
            ++i;
            continue;
        }
        // %[flags][width][.precision][length]conversion
        std::size_t j = i + 1;
        std::string conversion = "%";
        while (j < fmt.size() && std::string_view("-+ #0'").find(fmt[j]) != std::string_view::npos)
            conversion += fmt[j++];
        while (j < fmt.size() && fmt[j] >= '0' && fmt[j] <= '9') conversion += fmt[j++];
        if (j < fmt.size() && fmt[j] == '.') {
            conversion += fmt[j++];
            while (j < fmt.size() && fmt[j] >= '0' && fmt[j] <= '9') conversion += fmt[j++];
        }
        while (j < fmt.size() && std::string_view("hlqLzjt").find(fmt[j]) != std::string_view::npos)
            ++j;  // lengths are implied by the typed argument
        if (j >= fmt.size()) break;
        char conv = fmt[j];
        if (std::string_view("@sdiuxXocfFeEgGp").find(conv) == std::string_view::npos) {
            // Not a conversion the platform knows: keep the text as it stands.
            out.append(fmt.substr(i, j - i + 1));
            i = j;
            continue;
        }
        if (next < args.size()) {
            // A bare "%@" of a string, by far the most common in the log, is
            // appended as it stands rather than through a copy.
            const std::string* text = std::get_if<std::string>(&args[next].value());
            if (text && (conv == '@' || conv == 's') && conversion.size() == 1)
                out += *text;
            else
                out += printfOne(conversion, conv, args[next].value());
        }
        ++next;
        i = j;
    }
    return out;
}
