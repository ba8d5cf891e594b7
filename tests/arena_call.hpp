// A call of any implemented export, laid out from the registry alone: the
// operand groups in the export's storage form and every further pointer
// (compact results, scratch, pivot tables, the fixed-size vectors) in one
// arena, each block behind a guard zone (poisoned under AddressSanitizer),
// every byte that is neither a source element nor written by the caller
// filled with a sentinel. After the call, every byte of the arena that
// changed must be one that the export may write: a destination element, a
// compact result, the caller's scratch. The argument fuzzer, the digests that
// compare the 32-bit and 64-bit builds and the sweep with a 4-byte aligned
// stack all call exports this way.
//
// What an export reads and writes comes from tests/generated/exports.inc
// (tools/registry.py: SHAPES, BLOCKS, FIXED_BLOCKS, FAILURES).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "registry_table.hpp"

namespace ac {

// The choices a call is made from: the fuzzer's bytes (zeros once they run
// out), or a seeded sequence for repeatable calls. Nothing here depends on
// the pointer size, so both builds draw the same calls from the same seed.
class Draw {
public:
    Draw(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    explicit Draw(std::uint64_t seed) : seeded_(true), state_(seed) {}
    std::uint32_t u32();
    // 0 .. n-1 (0 for n < 2)
    std::uint32_t below(std::uint32_t n) { return n < 2 ? 0 : u32() % n; }
    bool chance(std::uint32_t one_in) { return below(one_in) == 0; }
    template <class V, std::size_t N>
    V pick(const V (&v)[N]) { return v[below(N)]; }

private:
    const std::uint8_t* data_ = nullptr;
    std::size_t size_ = 0, pos_ = 0;
    bool seeded_ = false;
    std::uint64_t state_ = 0;
};

// An extent of exports.inc over argument values: integers, names, + * ( ),
// elems(Group) and objects(Group).
std::int64_t eval(const std::string& expr, const std::map<std::string, std::int64_t>& names,
                  const std::map<std::string, std::int64_t>& elems,
                  const std::map<std::string, std::int64_t>& objects);

// The operand part of a row of exports.inc, parsed.
struct GroupSpec {
    std::string role, prefix, letter, rows, cols;
    bool array() const { return letter.size() == 2; }
};
struct BlockSpec {
    std::string param, role, extent;  // role: in out scratch pivots
    bool nullable = false;            // "?": may be null
    int k = 0;                        // "k@stride": vectors of k elements ...
    std::string stride;               // ... at this byte stride, `count` of them
};
struct Spec {
    std::vector<GroupSpec> groups;
    std::vector<BlockSpec> blocks;
    struct Clause {
        std::string a, op, b;  // op: == or >=
    };
    std::vector<Clause> relation;  // the size relation: all clauses hold
    std::vector<zelStatus> failures;
    bool digest_exempt = false;
};
const Spec& spec_of(const std::string& name);

// A group of an export and where its elements lie (strides and shift in
// bytes): the standard form from a base address, the list form from a table
// of objects, the pointer form from a table of element positions.
struct Place {
    const GroupSpec* g = nullptr;
    bool dst = false;  // a destination group
    char form = 'S';   // the operand's own storage form
    int rows = 1, cols = 1, objs = 1;
    int s0 = 0, s1 = 0, s2 = 0, shift = 0;
    unsigned char* base = nullptr;      // S
    std::vector<unsigned char*> table;  // L: objects, P: element positions
    // Strides of the standard and list forms (esz-byte elements): elements
    // k2 apart, each row padded by pad1 elements, each object by pad0.
    void dense(int esz, int k2, int pad1, int pad0) {
        s2 = k2 * esz;
        s1 = cols * s2 + pad1 * esz;
        s0 = rows * s1 + pad0 * esz;
    }
    // Stored element (r, c) of object n (of the one object of a single group).
    unsigned char* at(int n, int r, int c) const;
    // f(address, n, r, c) for every element of every object, in logical order.
    template <class F>
    void each(F&& f) const {
        for (int n = 0; n < objs; ++n)
            for (int r = 0; r < rows; ++r)
                for (int c = 0; c < cols; ++c) f(at(n, r, c), n, r, c);
    }
};
// The arguments of group `g` laid out as `p`: its pointer (or the table
// `tab`, and the shift) and its strides.
void pass(reg::Args& args, const GroupSpec& g, const Place& p, void* tab);

// The groups of an export at the sizes `names` ("count": the objects of the
// array groups), shaped and in their forms but not yet laid out, and the
// extents of its further pointers.
struct Shapes {
    std::vector<Place> groups;
    std::map<std::string, std::int64_t> names, elems, objects;
    std::int64_t extent(const BlockSpec& b) const { return eval(b.extent, names, elems, objects); }
};
Shapes shapes_of(const reg::ExportRow& row, std::map<std::string, std::int64_t> names);

// A call through the registry's generic caller of the export.
zelStatus call(const reg::ExportRow& row, const reg::Args& args);

// The exports that can be called: implemented and returning a status.
const std::vector<const reg::ExportRow*>& callable_exports();

// How a call is laid out.
enum class Mode {
    Plain,  // dense and well-formed: what a careful caller passes (digests, the stack sweep)
    Fuzz,   // any valid layout: overlapping rows and objects, odd alignment, huge unused strides
};

class Call {
public:
    // `parallel`: the call may run on several threads, so destination
    // objects must not overlap (overlapping rows within one object may).
    Call(const reg::ExportRow& row, Draw& d, Mode mode, bool parallel = false);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    const reg::ExportRow& row() const { return row_; }
    const Spec& spec() const { return spec_; }
    reg::Args args;

    // The status the argument checks give for the arguments as they stand
    // now, in the export's order (0 if all pass).
    zelStatus check_status() const;
    // Whether an integer argument still addresses the laid-out memory: a
    // changed stride is harmless where nothing is multiplied by it.
    bool harmless(const std::string& name, int value) const;
    // The integer and pointer arguments a fuzzer may break.
    const std::vector<std::string>& int_args() const { return ints_; }
    const std::vector<std::string>& pointer_args() const { return ptrs_; }
    // Tables of pointers, whose entries a broken call may garble.
    std::vector<std::pair<void**, std::size_t>> tables() const { return tables_; }

    zelStatus call() const;
    // Restores the arena to its state before the call.
    void reset();
    // Takes the arena as it is now as the state before the call (after a
    // broken call's tables were garbled).
    void rebase();
    // Bytes of the arena that differ from before the call.
    std::vector<std::size_t> changed() const;
    // Of those, the ones the export may not write after a call that passed
    // its checks; with a description of the first.
    std::vector<std::size_t> stray_writes(std::string* first = nullptr) const;
    // A digest of the status and of everything the export writes but its
    // scratch: destination elements in logical order, compact results.
    std::uint64_t digest(zelStatus st) const;
    std::string describe() const;

    int elem_size() const { return esz_; }

private:
    struct Placed {  // a further pointer as laid out
        const BlockSpec* b;
        unsigned char* p = nullptr;
        int esz = 4;
        std::int64_t elems = 0;  // plain block
        int count = 0, stride = 0;  // k@stride
    };

    unsigned char* alloc(std::size_t bytes, int misalign, const std::string& label);
    void choose_sizes(Draw& d, Mode mode);
    void lay_group(Place l, Draw& d, Mode mode);
    void lay_block(const BlockSpec& b, Draw& d, Mode mode);
    void fill_source(unsigned char* p, Draw& d, Mode mode);
    std::map<std::string, std::int64_t> names() const;
    void poison(bool on) const;
    // Every result the export may store, f(address, bytes): destination
    // elements in logical order, the compact results (and the scratch).
    void for_each_result(bool scratch, const std::function<void(const unsigned char*, std::size_t)>& f) const;

    bool parallel_;
    const reg::ExportRow& row_;
    const Spec& spec_;
    std::vector<reg::Param> params_;
    int esz_ = 4;
    Shapes shapes_;
    std::vector<Place> groups_;  // as laid out (the table entries before any garbling)
    std::vector<Placed> blocks_;
    std::vector<std::string> ints_, ptrs_;
    std::vector<std::pair<void**, std::size_t>> tables_;
    std::vector<unsigned char> writable_, snapshot_;
    std::vector<std::pair<std::size_t, std::size_t>> guards_;  // offset, bytes
    std::vector<std::pair<std::size_t, std::string>> labels_;   // offset of each block, what it is
    std::map<std::string, int> laid_;                          // the integer arguments as laid out
    std::size_t used_ = 0;
    unsigned char* arena_;
};

}  // namespace ac
