#include "registry_table.hpp"

#include <sstream>

namespace reg {

std::vector<Check> checks_of(const ExportRow& row) {
    std::vector<Check> out;
    std::istringstream in(row.checks);
    for (std::string tok; in >> tok;) {  // "S=src1Stride1,src1Stride2", "H.src=srcShift"
        std::istringstream args(tok.substr(tok.find('=') + 1));
        out.push_back({tok[0], {}});
        for (std::string a; std::getline(args, a, ',');)
            if (!a.empty()) out.back().args.push_back(a);
    }
    return out;
}

std::vector<Param> params_of(const ExportRow& row) {
    std::vector<Param> out;
    std::string s = row.params;
    std::size_t i = 0;
    while (i < s.size()) {
        std::size_t j = s.find(", ", i);
        if (j == std::string::npos) j = s.size();
        const std::string p = s.substr(i, j - i);
        const auto sp = p.find_last_of(" *");
        out.push_back({p.substr(0, sp + 1), p.substr(sp + 1)});
        while (!out.back().type.empty() && out.back().type.back() == ' ') out.back().type.pop_back();
        i = j + 2;
    }
    return out;
}

std::string type_of(const std::vector<Param>& params, const std::string& name) {
    for (const auto& p : params)
        if (p.name == name) return p.type;
    return "";
}

zelStatus status_of(char letter) {
    switch (letter) {
        case 'N': return zelStsErrNullPointer;
        case 'C': return zelStsErrCount;
        case 'Z': return zelStsErrSize;
        case 'M': return zelStsErrSizeMismatch;
        case 'S':
        case 'K': return zelStsErrStride;
        case 'H': return zelStsErrShift;
    }
    return 1;
}

Caller caller_of(std::string_view name) {
    static const std::map<std::string_view, Caller> callers = {
#define ZEL_EXPORT_PLAIN(...)
#define ZEL_EXPORT_NOCALL(...)
#define ZEL_EXPORT(n, o, s, t, f, c, i, p, g, b, r, fl, x, expr) {n, [](const Args& a) -> zelStatus { return expr; }},
#include "generated/exports.inc"
#undef ZEL_EXPORT
#undef ZEL_EXPORT_NOCALL
#undef ZEL_EXPORT_PLAIN
    };
    auto it = callers.find(name);
    return it == callers.end() ? nullptr : it->second;
}

}  // namespace reg
