#include "export_format.h"

#include <configmanager/configmanager.h>

#include "context.h"

namespace cmctl {
namespace {

bool isNumber(const VarInfo& v) { return v.type == DT_OCTET || v.type == DT_WORD || v.type == DT_DWORD; }

bool needsQuotes(const std::string& s) {
    if (s.empty() || s.front() == ' ' || s.back() == ' ' || s.front() == '"') return true;
    for (unsigned char c : s)
        if (c < 0x20 || c > 0x7E) return true;
    return false;
}

std::string quoted(const std::string& s) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
            case '\\': out += "\\\\"; break;
            case '"': out += "\\\""; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20 || c > 0x7E) out += std::string("\\x") + digits[c >> 4] + digits[c & 15];
                else out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The text inside the quotes that start at `s[0]`; what follows the closing
// quote may only be blanks.
std::string unquoted(const std::string& s) {
    std::string out;
    size_t i = 1;
    for (; i < s.size() && s[i] != '"'; ++i) {
        if (s[i] != '\\') {
            out += s[i];
            continue;
        }
        if (++i == s.size()) break;
        switch (s[i]) {
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case '\\': case '"': out += s[i]; break;
            case 'x': {
                const int hi = i + 1 < s.size() ? hexValue(s[i + 1]) : -1;
                const int lo = i + 2 < s.size() ? hexValue(s[i + 2]) : -1;
                if (hi < 0 || lo < 0) throw Failure("\\x needs two hexadecimal digits");
                out += static_cast<char>(hi << 4 | lo);
                i += 2;
                break;
            }
            default: throw Failure(std::string("unknown escape \\") + s[i]);
        }
    }
    if (i >= s.size()) throw Failure("no closing quote");
    if (s.find_first_not_of(" \t", i + 1) != std::string::npos) throw Failure("text after the closing quote");
    return out;
}

bool validUtf8(const std::string& s) {
    try {
        (void)Json(s).dump();
        return true;
    } catch (const Json::type_error&) {
        return false;
    }
}

std::string hexOf(const std::string& s) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out = "0x";
    for (unsigned char c : s) out += std::string{digits[c >> 4], digits[c & 15]};
    return out;
}

}  // namespace

std::string exportValue(const VarInfo& v, const ValueBuffer& value) {
    const std::string text = formatValue(v, value, PasswordForm::Stored);
    return (v.type == DT_STRING || v.type == DT_IPADDR) && needsQuotes(text) ? quoted(text) : text;
}

std::string exportLine(const VarInfo& v, const ValueBuffer& value) { return v.name + " = " + exportValue(v, value); }

std::optional<ExportEntry> parseExportLine(const std::string& raw) {
    std::string line = raw;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') return std::nullopt;
    const size_t eq = line.find('=', start);
    if (eq == std::string::npos) throw Failure("not NAME = value");
    ExportEntry e;
    e.name = line.substr(start, eq - start);
    e.name.erase(e.name.find_last_not_of(" \t") + 1);
    const size_t vstart = line.find_first_not_of(" \t", eq + 1);
    if (vstart == std::string::npos) return e;
    if (line[vstart] == '"') {
        e.text = unquoted(line.substr(vstart));
    } else {
        e.text = line.substr(vstart);
        e.text.erase(e.text.find_last_not_of(" \t") + 1);
    }
    return e;
}

Json exportJson(const VarInfo& v, const ValueBuffer& value) {
    const std::string text = formatValue(v, value, PasswordForm::Stored);
    if (isNumber(v)) return std::stoul(text);
    if (v.type == DT_STRING && !validUtf8(text)) return Json{{"hex", hexOf(text)}};
    return text;
}

std::string textFromJson(const VarInfo& v, const Json& j) {
    if (j.is_number_unsigned() && isNumber(v)) return std::to_string(j.get<uint64_t>());
    if (j.is_string()) return j.get<std::string>();
    if (v.type == DT_STRING && j.is_object() && j.size() == 1 && j.contains("hex") && j["hex"].is_string()) {
        const std::string h = j["hex"].get<std::string>();
        std::string out;
        if (h.rfind("0x", 0) != 0 || h.size() % 2 != 0) throw Failure(v.name + ": bad hex text");
        for (size_t i = 2; i < h.size(); i += 2) {
            const int hi = hexValue(h[i]), lo = hexValue(h[i + 1]);
            if (hi < 0 || lo < 0) throw Failure(v.name + ": bad hex text");
            out += static_cast<char>(hi << 4 | lo);
        }
        return out;
    }
    throw Failure(v.name + ": " + (isNumber(v) ? "expected a number" : "expected a string"));
}

Json displayJson(const VarInfo& v, const std::string& text) {
    if (isNumber(v) && !text.empty()) return std::stoul(text);
    return text;
}

}  // namespace cmctl
