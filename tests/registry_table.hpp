// The registry's export table, as the tests iterate it, and a generic caller
// for every implemented export with argument checks.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zelm.h"

namespace reg {

struct ExportRow {
    const char* name;
    const char* op;
    const char* sig;
    const char* type;
    const char* form;
    const char* checks;  // "N=pSrc1,pDst Z=len S=..." in the order they are made
    bool implemented;
    const char* params;  // "const float* pSrc1, int src1Stride2, ..."
};

inline const std::vector<ExportRow>& exports() {
    static const std::vector<ExportRow> rows = {
#define ZEL_EXPORT_PLAIN(n, o, s, t, f, c, i, p) {n, o, s, t, f, c, i != 0, p},
#define ZEL_EXPORT_NOCALL(n, o, s, t, f, c, i, p, ...) ZEL_EXPORT_PLAIN(n, o, s, t, f, c, i, p)
#define ZEL_EXPORT(n, o, s, t, f, c, i, p, ...) ZEL_EXPORT_PLAIN(n, o, s, t, f, c, i, p)
#include "generated/exports.inc"
#undef ZEL_EXPORT
#undef ZEL_EXPORT_NOCALL
#undef ZEL_EXPORT_PLAIN
    };
    return rows;
}

// One check of an export: its letter and the arguments it tests.
struct Check {
    char letter;
    std::vector<std::string> args;
};
std::vector<Check> checks_of(const ExportRow& row);

struct Param {
    std::string type, name;
    bool pointer() const { return type.find('*') != std::string::npos; }
    bool real() const { return type == "float" || type == "double"; }
};
std::vector<Param> params_of(const ExportRow& row);
// The type of parameter `name` ("" where there is none).
std::string type_of(const std::vector<Param>& params, const std::string& name);

// Argument values by name, for the generic callers.
struct Args {
    std::map<std::string, void*> ptrs;
    std::map<std::string, int> nums;
    std::map<std::string, double> reals;
    void* ptr(const char* n) const { return ptrs.at(n); }
    int num(const char* n) const { return nums.at(n); }
    double real(const char* n) const { return reals.at(n); }
};
using Caller = zelStatus (*)(const Args&);
Caller caller_of(std::string_view name);  // nullptr if the export has none

zelStatus status_of(char letter);

}  // namespace reg
