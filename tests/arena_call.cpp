#include "arena_call.hpp"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <sstream>
#include <stdexcept>

// the guards are poisoned under AddressSanitizer (the macros do nothing otherwise)
#include <sanitizer/asan_interface.h>

namespace ac {

// ---------------------------------------------------------------------------
// Draw

std::uint32_t Draw::u32() {
    if (seeded_) {  // splitmix64
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return std::uint32_t((z ^ (z >> 31)) >> 16);
    }
    std::uint32_t v = 0;
    for (int k = 0; k < 4; ++k) v = v << 8 | (pos_ < size_ ? data_[pos_++] : 0u);
    return v;
}

// ---------------------------------------------------------------------------
// Expressions

namespace {

// Sums of products of integers, argument names, ( ), elems(Group) and
// objects(Group).
struct Parser {
    const std::string& s;
    const std::map<std::string, std::int64_t>& names;
    const std::map<std::string, std::int64_t>& elems;
    const std::map<std::string, std::int64_t>& objects;
    std::size_t i = 0;

    bool eat(char c) {
        while (i < s.size() && s[i] == ' ') ++i;
        return i < s.size() && s[i] == c && ++i;
    }
    [[noreturn]] void fail() const { throw std::runtime_error("bad expression: " + s); }
    std::string word() {
        eat(' ');
        const std::size_t b = i;
        while (i < s.size() && (std::isalnum(static_cast<unsigned char>(s[i])) || s[i] == '_')) ++i;
        if (b == i) fail();
        return s.substr(b, i - b);
    }
    std::int64_t atom() {
        if (eat('(')) {
            const std::int64_t v = sum();
            if (!eat(')')) fail();
            return v;
        }
        const std::string w = word();
        if (std::isdigit(static_cast<unsigned char>(w[0]))) return std::stoll(w);
        const auto& table = !eat('(') ? names : w == "elems" ? elems : w == "objects" ? objects : (fail(), names);
        const std::string key = &table == &names ? w : word();
        if (&table != &names && !eat(')')) fail();
        const auto it = table.find(key);
        if (it == table.end()) throw std::runtime_error("no " + key + " in " + s);
        return it->second;
    }
    std::int64_t product() {
        std::int64_t v = atom();
        while (eat('*')) v *= atom();
        return v;
    }
    std::int64_t sum() {
        std::int64_t v = product();
        while (eat('+')) v += product();
        return v;
    }
};

std::vector<std::string> split(const std::string& s, char sep) {
    std::vector<std::string> out;
    std::string cur;
    std::istringstream in(s);
    while (std::getline(in, cur, sep))
        if (!cur.empty()) out.push_back(cur);
    return out;
}

zelStatus status_named(const std::string& n) {
    static const std::map<std::string, zelStatus> m = {
        {"zelStsErrGeneric", zelStsErrGeneric},        {"zelStsErrDivByZero", zelStsErrDivByZero},
        {"zelStsErrNotPosDefinite", zelStsErrNotPosDefinite}, {"zelStsErrSingular", zelStsErrSingular},
        {"zelStsErrNoConvergence", zelStsErrNoConvergence},
    };
    return m.at(n);
}

const std::map<std::string, Spec>& specs() {
    static const std::map<std::string, Spec> all = [] {
        std::map<std::string, Spec> out;
        auto add = [&](const char* name, const char* groups, const char* blocks, const char* rel,
                       const char* failures, int exempt) {
            Spec s;
            for (const auto& g : split(groups, ' ')) {
                const auto f = split(g, ':');  // role prefix letter rows,cols
                const auto rc = split(f.at(3), ',');
                s.groups.push_back({f.at(0), f.at(1), f.at(2), rc.at(0), rc.at(1)});
            }
            for (const auto& b : split(blocks, ' ')) {
                // name=role:extent; "?" after the extent: may be null
                const auto eq = b.find('='), colon = b.find(':', eq);
                BlockSpec bs{b.substr(0, eq), b.substr(eq + 1, colon - eq - 1), b.substr(colon + 1), false, 0, {}};
                bs.nullable = bs.extent.back() == '?';
                if (bs.nullable) bs.extent.pop_back();
                if (const auto at = bs.extent.find('@'); at != std::string::npos) {
                    bs.k = std::stoi(bs.extent.substr(0, at));
                    bs.stride = bs.extent.substr(at + 1);
                }
                s.blocks.push_back(bs);
            }
            for (const auto& clause : split(rel, '&')) {  // "a == b", "a >= b"
                const auto w = split(clause, ' ');
                if (w.at(1) != "==" && w.at(1) != ">=") throw std::runtime_error(std::string("relation ") + rel);
                s.relation.push_back({w.at(0), w.at(1), w.at(2)});
            }
            for (const auto& f : split(failures, ' ')) s.failures.push_back(status_named(f));
            s.digest_exempt = exempt != 0;
            out.emplace(name, std::move(s));
        };
#define ZEL_EXPORT_PLAIN(...)
#define ZEL_EXPORT_NOCALL(n, o, s, t, f, c, i, p, g, b, r, fl, x) add(n, g, b, r, fl, x);
#define ZEL_EXPORT(n, o, s, t, f, c, i, p, g, b, r, fl, x, expr) add(n, g, b, r, fl, x);
#include "generated/exports.inc"
#undef ZEL_EXPORT
#undef ZEL_EXPORT_NOCALL
#undef ZEL_EXPORT_PLAIN
        return out;
    }();
    return all;
}

// The integer arguments that are neither strides nor shifts.
bool is_size(const std::string& n) { return n.find("Stride") == std::string::npos && n.find("Shift") == std::string::npos; }

// The arena: one block for the whole process (one Call at a time), filled
// only as far as a call uses it.
constexpr std::size_t kArena = std::size_t(24) << 20;
constexpr std::size_t kGuard = 32;
constexpr std::size_t kBudget = std::size_t(6) << 20;  // laid-out bytes a call may use
constexpr unsigned char kSentinel = 0xA5;

unsigned char* arena_memory() {
    static unsigned char* a = static_cast<unsigned char*>(std::aligned_alloc(64, kArena));
    return a;
}

}  // namespace

std::int64_t eval(const std::string& expr, const std::map<std::string, std::int64_t>& names,
                  const std::map<std::string, std::int64_t>& elems,
                  const std::map<std::string, std::int64_t>& objects) {
    Parser p{expr, names, elems, objects};
    const std::int64_t v = p.sum();
    if (p.eat(' '), p.i != expr.size()) p.fail();
    return v;
}

const Spec& spec_of(const std::string& name) { return specs().at(name); }

const std::vector<const reg::ExportRow*>& callable_exports() {
    static const std::vector<const reg::ExportRow*> all = [] {
        std::vector<const reg::ExportRow*> out;
        for (const auto& r : reg::exports())
            if (r.implemented && specs().count(r.name)) out.push_back(&r);
        return out;
    }();
    return all;
}

// ---------------------------------------------------------------------------
// Laying out

unsigned char* Place::at(int n, int r, int c) const {
    if (!g->array()) n = 0;
    if (form == 'S') return base + std::ptrdiff_t(n) * s0 + std::ptrdiff_t(r) * s1 + std::ptrdiff_t(c) * s2;
    if (form == 'L') return table[std::size_t(n)] + shift + std::ptrdiff_t(r) * s1 + std::ptrdiff_t(c) * s2;
    return table[std::size_t(r) * cols + c] + shift + std::ptrdiff_t(n) * s0;
}

void pass(reg::Args& args, const GroupSpec& g, const Place& p, void* tab) {
    const std::string& x = g.prefix;
    if (p.form == 'S') {
        args.ptrs["p" + g.role] = p.base;
    } else {
        args.ptrs["pp" + g.role] = tab;
        args.nums[x + "Shift"] = p.shift;
    }
    args.nums[x + "Stride0"] = p.s0;
    args.nums[x + "Stride1"] = p.s1;
    args.nums[x + "Stride2"] = p.s2;
}

Shapes shapes_of(const reg::ExportRow& row, std::map<std::string, std::int64_t> names) {
    Shapes s;
    names.emplace("count", 1);
    const auto params = reg::params_of(row);
    for (const auto& g : spec_of(row.name).groups) {
        Place p;
        p.g = &g;
        p.dst = g.role.rfind("Dst", 0) == 0;
        p.rows = int(eval(g.rows, names, {}, {}));
        p.cols = int(eval(g.cols, names, {}, {}));
        p.objs = g.array() ? int(names.at("count")) : 1;
        // a plain pointer is the standard form; Copy names the source's form and the destination's
        const bool table = !reg::type_of(params, "pp" + g.role).empty();
        const char form = row.form[1] ? row.form[p.dst ? 1 : 0] : row.form[0];
        p.form = !table ? 'S' : (form == 'L' && g.array()) ? 'L' : 'P';
        s.elems[g.role] = std::int64_t(p.rows) * p.cols;
        s.objects[g.role] = p.objs;
        s.groups.push_back(p);
    }
    s.names = std::move(names);
    return s;
}

zelStatus call(const reg::ExportRow& row, const reg::Args& args) {
    const auto c = reg::caller_of(row.name);
    if (!c) throw std::runtime_error(std::string("no caller for ") + row.name);
    return c(args);
}

Call::Call(const reg::ExportRow& row, Draw& d, Mode mode, bool parallel)
    : parallel_(parallel), row_(row), spec_(spec_of(row.name)), params_(reg::params_of(row)), arena_(arena_memory()) {
    esz_ = std::string(row.type) == "64f" ? 8 : 4;
    for (const auto& p : params_) {
        if (p.pointer()) ptrs_.push_back(p.name);
        else if (!p.real()) ints_.push_back(p.name);
    }
    choose_sizes(d, mode);
    shapes_ = shapes_of(row, names());
    for (const auto& p : shapes_.groups) lay_group(p, d, mode);
    for (const auto& b : spec_.blocks) lay_block(b, d, mode);
    for (const auto& p : params_) {
        if (!p.real()) continue;
        static const double nice[] = {0.5, -1.25, 2.0, 3.0, -0.75, 1.0, 0.0};
        static const double odd[] = {0.0, -0.0, 1e30, -1e-30, std::numeric_limits<double>::infinity(),
                                     std::numeric_limits<double>::quiet_NaN(), 65536.0, 1e-45};
        args.reals[p.name] = mode == Mode::Fuzz && d.chance(6) ? d.pick(odd) : d.pick(nice);
    }
    writable_.resize(used_, 0);
    for_each_result(true, [&](const unsigned char* p, std::size_t n) { std::memset(&writable_[p - arena_], 1, n); });
    snapshot_.assign(arena_, arena_ + used_);
    laid_ = args.nums;
    poison(true);
}

Call::~Call() { poison(false); }

void Call::poison(bool on) const {
    for (const auto& [off, n] : guards_) {
        if (on) ASAN_POISON_MEMORY_REGION(arena_ + off, n);
        else ASAN_UNPOISON_MEMORY_REGION(arena_ + off, n);
    }
}

unsigned char* Call::alloc(std::size_t bytes, int misalign, const std::string& label) {
    std::size_t start = (used_ + kGuard + 15) / 16 * 16 + std::size_t(misalign);
    if (start + bytes + kGuard > kArena) throw std::length_error("arena full");
    // the guard before the block and the gap up to it hold the sentinel and are poisoned
    std::memset(arena_ + used_, kSentinel, start + bytes - used_);
    guards_.push_back({used_, start - used_});
    labels_.push_back({start, label});
    used_ = start + bytes;
    return arena_ + start;
}

std::map<std::string, std::int64_t> Call::names() const {
    std::map<std::string, std::int64_t> m;
    for (const auto& [k, v] : args.nums) m[k] = v;
    if (!m.count("count")) m["count"] = 1;
    return m;
}

void Call::choose_sizes(Draw& d, Mode mode) {
    const bool checked = row_.checks[0] != 0;
    for (const auto& n : ints_) {
        if (!is_size(n)) continue;
        int v;
        if (n == "count") {
            if (!checked) {
                static const int c[] = {-1, 0, 1, 1, 2, 3, 7};
                v = d.pick(c);
            } else if (mode == Mode::Plain) {
                static const int c[] = {1, 2, 3, 5};
                v = d.pick(c);
            } else {
                const std::uint32_t k = d.below(20);
                v = k < 12 ? 1 + int(d.below(4)) : k < 17 ? 5 + int(d.below(36)) : 41 + int(d.below(5000));
            }
        } else if (mode == Mode::Plain) {
            static const int s[] = {1, 2, 3, 4, 5, 6, 7, 3, 4, 5, 6, 9};
            v = d.pick(s);
        } else {
            const std::uint32_t k = d.below(10);
            v = k < 7 ? 1 + int(d.below(8)) : k < 9 ? 9 + int(d.below(12)) : 1 + int(d.below(48));
        }
        args.nums[n] = v;
    }
    // make the size relation hold, clause by clause: "a == b" sets b, "a >= b" lowers b
    for (const auto& [a, op, b] : spec_.relation)
        if (op == "==" || args.nums.at(a) < args.nums.at(b)) args.nums[b] = args.nums.at(a);
    // keep the laid-out memory within the budget: fewer objects, then smaller ones
    for (int round = 0; round < 40; ++round) {
        const auto nm = names();
        std::int64_t elems = 0;
        for (const auto& g : spec_.groups)
            elems += eval(g.rows, nm, {}, {}) * eval(g.cols, nm, {}, {}) * (g.array() ? nm.at("count") : 1);
        if (elems * esz_ * 4 <= std::int64_t(kBudget)) break;
        if (args.nums.count("count") && args.nums["count"] > 1) {
            args.nums["count"] /= 2;
        } else {
            for (auto& [k, v] : args.nums)
                if (is_size(k) && k != "count") v = std::max(1, v / 2);
        }
    }
}

void Call::fill_source(unsigned char* p, Draw& d, Mode mode) {
    double v;
    const std::uint32_t k = d.below(16);
    if (mode == Mode::Plain || k < 10) {
        // full mantissas, so that every sum and product is rounded
        v = (double(d.below(2000001)) - 1000000.0) / 131072.0 * 1.0000001;
    } else if (k < 14) {
        v = double(int(d.below(5)) - 2);  // exact small integers: singular and zero pivots
    } else {
        static const double odd[] = {0.0, -0.0, 1e-40, 1e-310, 1e38, 1e300, std::numeric_limits<double>::infinity(),
                                     -std::numeric_limits<double>::infinity(),
                                     std::numeric_limits<double>::quiet_NaN()};
        v = d.pick(odd);
    }
    if (esz_ == 8) std::memcpy(p, &v, 8);
    else {
        const float f = float(v);
        std::memcpy(p, &f, 4);
    }
}

void Call::lay_group(Place l, Draw& d, Mode mode) {
    auto has = [&](const std::string& n) { return std::find(ints_.begin(), ints_.end(), n) != ints_.end(); };
    const std::string x = l.g->prefix;
    const bool fuzz = mode == Mode::Fuzz;
    static const int k2s[] = {1, 1, 1, 1, 2, 3};
    static const int pads[] = {0, 0, 1, 3};
    static const int huge[] = {0x7FFFFFF8, 0x40000000, 0x7FFFFF00, 1 << 20};
    static const int misaligns[] = {0, 0, 0, 0, 4, 8, 12, 0, 4, 1, 2, 6};
    auto misalign = [&] { return fuzz ? d.pick(misaligns) : 0; };
    const int esz = esz_;
    // strides for the standard and list forms, as a dense or padded layout
    // would have them; then rows or objects that overlap, and a stride that
    // multiplies nothing may be huge
    if (l.form != 'P') {
        const int k2 = fuzz ? d.pick(k2s) : 1, pad1 = fuzz ? d.pick(pads) : 0;
        l.dense(esz, k2, pad1, fuzz ? d.pick(pads) : 0);
        if (fuzz && d.chance(8)) l.s1 = esz * (1 + int(d.below(std::uint32_t(l.cols) * std::uint32_t(l.s2 / esz))));
        if (fuzz && d.chance(8)) l.s0 = esz * (1 + int(d.below(std::uint32_t(l.s0 / esz))));
        if (fuzz && l.cols == 1 && d.chance(4)) l.s2 = d.pick(huge) & ~(esz - 1);
        if (fuzz && l.rows == 1 && d.chance(4)) l.s1 = d.pick(huge) & ~(esz - 1);
        if (!has(x + "Stride1")) l.s1 = 0;
        if (!has(x + "Stride2")) l.s2 = 0;
    } else {
        l.s0 = esz * (fuzz ? d.pick(k2s) : 1);
    }
    if (!has(x + "Stride0")) l.s0 = 0;
    if (fuzz && l.objs == 1 && has(x + "Stride0") && d.chance(4)) l.s0 = d.pick(huge) & ~(esz - 1);
    // threads share no destination object: the caller's side of the contract
    if (parallel_ && l.dst && l.form == 'S' && l.objs > 1) {
        const std::int64_t obj = std::int64_t(l.rows - 1) * l.s1 + std::int64_t(l.cols - 1) * l.s2 + esz;
        l.s0 = int(std::max<std::int64_t>(l.s0, obj));
    }
    static const int shifts[] = {0, 0, 1, 2, 16};
    if (l.form != 'S') l.shift = esz * (fuzz ? d.pick(shifts) : 0);
    auto span = [&](bool with_objects) {
        std::int64_t s = esz;
        if (l.rows > 1) s += std::int64_t(l.rows - 1) * l.s1;
        if (l.cols > 1) s += std::int64_t(l.cols - 1) * l.s2;
        if (with_objects && l.objs > 1) s += std::int64_t(l.objs - 1) * l.s0;
        return std::size_t(s);
    };
    void** t = nullptr;
    if (l.form == 'S') {
        l.base = alloc(span(true), misalign(), l.g->role);
    } else {
        const std::size_t entries = l.form == 'L' ? std::size_t(l.objs) : std::size_t(l.rows) * l.cols;
        // tables are aligned as any C array of pointers is
        t = reinterpret_cast<void**>(alloc(entries * sizeof(void*), 0, "the table of " + l.g->role));
        tables_.push_back({t, entries});
        l.table.resize(entries);
        for (std::size_t e = 0; e < entries; ++e) {
            const std::size_t bytes = l.shift + (l.form == 'L' ? span(false) : span(true));
            l.table[e] = alloc(bytes, misalign(), l.g->role + " entry " + std::to_string(e));
        }
        // a source table may name one object or element position twice
        if (fuzz && !l.dst && entries > 1 && d.chance(4)) l.table[entries - 1] = l.table[0];
        std::copy(l.table.begin(), l.table.end(), t);
    }
    pass(args, *l.g, l, t);
    if (!l.dst) l.each([&](unsigned char* p, int, int, int) { fill_source(p, d, mode); });
    groups_.push_back(std::move(l));
}

void Call::lay_block(const BlockSpec& b, Draw& d, Mode mode) {
    Placed pl;
    pl.b = &b;
    const std::string type = reg::type_of(params_, b.param);
    pl.esz = type.find("double") != std::string::npos ? 8 : 4;
    const bool reals = type.find("int") == std::string::npos;
    const bool fuzz = mode == Mode::Fuzz;
    if (b.nullable && fuzz && d.chance(3)) {
        args.ptrs[b.param] = nullptr;
        blocks_.push_back(pl);
        return;
    }
    std::size_t bytes;
    if (b.k) {
        pl.count = int(names().at("count"));
        static const int pads[] = {0, 0, 1, 2};
        pl.stride = 4 * (b.k + (fuzz ? d.pick(pads) : 0));
        args.nums[b.stride] = pl.stride;
        bytes = pl.count > 0 ? std::size_t(pl.count - 1) * pl.stride + std::size_t(b.k) * 4 : 0;
    } else {
        pl.elems = shapes_.extent(b);
        bytes = std::size_t(pl.elems) * pl.esz;
    }
    static const int misaligns[] = {0, 0, 0, 4, 8, 12};
    pl.p = alloc(bytes, reals && fuzz ? d.pick(misaligns) : 0, b.param);
    args.ptrs[b.param] = pl.p;
    if (b.role == "in" && b.k) {
        for (int n = 0; n < pl.count; ++n)
            for (int j = 0; j < b.k; ++j) fill_source(pl.p + std::size_t(n) * pl.stride + 4 * j, d, mode);
    } else if (b.role == "in") {
        for (std::int64_t e = 0; e < pl.elems; ++e) fill_source(pl.p + e * pl.esz, d, mode);
    } else if (b.role == "pivots") {
        // one permutation of 0 .. widthHeight-1 per table
        const int n = int(names().at("widthHeight"));
        for (std::int64_t t = 0; t + n <= pl.elems; t += n) {
            std::vector<int> perm(n);
            for (int i = 0; i < n; ++i) perm[i] = i;
            for (int i = n - 1; i > 0; --i) std::swap(perm[i], perm[d.below(std::uint32_t(i + 1))]);
            std::memcpy(pl.p + t * 4, perm.data(), std::size_t(n) * 4);
        }
    }
    blocks_.push_back(pl);
}

// ---------------------------------------------------------------------------
// Checks, the call, and what it changed

zelStatus Call::check_status() const {
    if (!row_.checks[0]) return zelStsOk;
    const auto nm = names();
    auto num = [&](const std::string& n) { return args.nums.at(n); };
    for (const auto& chk : reg::checks_of(row_)) {
        bool bad = false;
        switch (chk.letter) {
            case 'N':
                for (const auto& a : chk.args) bad |= args.ptrs.at(a) == nullptr;
                break;
            case 'C':
            case 'Z':
                for (const auto& a : chk.args) bad |= num(a) < 1;
                break;
            case 'M':
                for (const auto& [a, op, b] : spec_.relation) bad |= op == "==" ? nm.at(a) != nm.at(b) : nm.at(a) < nm.at(b);
                break;
            case 'S':
            case 'K':
                for (const auto& a : chk.args) bad |= (num(a) & (esz_ - 1)) != 0 || num(a) < 1;
                if (chk.letter == 'K') bad = bad && nm.at("count") > 1;
                break;
            case 'H':
                for (const auto& a : chk.args) bad |= (num(a) & (esz_ - 1)) != 0 || num(a) < 0;
                break;
        }
        if (bad) return reg::status_of(chk.letter);
    }
    return zelStsOk;
}

bool Call::harmless(const std::string& name, int value) const {
    for (const auto& l : groups_) {
        const std::string& x = l.g->prefix;
        if (name == x + "Stride0") return value == l.s0 || l.objs <= 1;
        if (name == x + "Stride1") return value == l.s1 || l.rows <= 1;
        if (name == x + "Stride2") return value == l.s2 || l.cols <= 1;
    }
    for (const auto& b : blocks_)
        if (b.b->k && name == b.b->stride) return value == b.stride || b.count <= 1;
    const auto it = laid_.find(name);
    return it != laid_.end() && it->second == value;
}

zelStatus Call::call() const { return ac::call(row_, args); }

void Call::reset() {
    poison(false);
    std::memcpy(arena_, snapshot_.data(), used_);
    poison(true);
}

void Call::rebase() {
    poison(false);
    snapshot_.assign(arena_, arena_ + used_);
    poison(true);
}

std::vector<std::size_t> Call::changed() const {
    std::vector<std::size_t> out;
    poison(false);  // the guards are compared too
    for (std::size_t i = 0; i < used_; ++i)
        if (arena_[i] != snapshot_[i]) out.push_back(i);
    poison(true);
    return out;
}

std::vector<std::size_t> Call::stray_writes(std::string* first) const {
    std::vector<std::size_t> out;
    for (std::size_t i : changed())
        if (!writable_[i]) out.push_back(i);
    if (first && !out.empty()) {
        // the block it lies in or behind
        const auto it = std::upper_bound(labels_.begin(), labels_.end(), out[0],
                                         [](std::size_t v, const auto& l) { return v < l.first; });
        std::ostringstream s;
        s << out.size() << " bytes, the first at arena offset " << out[0];
        if (it != labels_.begin()) s << ", " << out[0] - std::prev(it)->first << " bytes into " << std::prev(it)->second;
        *first = s.str();
    }
    return out;
}

void Call::for_each_result(bool scratch, const std::function<void(const unsigned char*, std::size_t)>& f) const {
    for (const auto& l : groups_)
        if (l.dst) l.each([&](const unsigned char* p, int, int, int) { f(p, esz_); });
    for (const auto& b : blocks_) {
        if (!b.p || (b.b->role != "out" && (!scratch || b.b->role != "scratch"))) continue;
        if (!b.b->k) f(b.p, std::size_t(b.elems) * b.esz);
        for (int n = 0; b.b->k && n < b.count; ++n) f(b.p + std::size_t(n) * b.stride, std::size_t(b.b->k) * b.esz);
    }
}

std::uint64_t Call::digest(zelStatus st) const {
    std::uint64_t h = 0xCBF29CE484222325ull;
    auto mix = [&](const unsigned char* p, std::size_t n) {
        for (std::size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 0x100000001B3ull;
    };
    mix(reinterpret_cast<const unsigned char*>(&st), sizeof st);
    for_each_result(false, mix);
    return h;
}

std::string Call::describe() const {
    std::ostringstream s;
    s << row_.name << "(";
    for (const auto& p : params_) {
        s << (&p == &params_.front() ? "" : ", ") << p.name << "=";
        const auto* v = p.pointer() ? static_cast<const unsigned char*>(args.ptrs.at(p.name)) : nullptr;
        if (p.real()) s << args.reals.at(p.name);
        else if (!p.pointer()) s << args.nums.at(p.name);
        else if (v >= arena_ && v < arena_ + kArena) s << "@" << (v - arena_);
        else s << static_cast<const void*>(v);  // null or wild
    }
    s << ")";
    return s.str();
}

}  // namespace ac
