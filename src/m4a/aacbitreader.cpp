#include "m4a/aacbitreader.h"

#include "core/errorcodes.h"
#include "m4a/aactables.h"

#include <algorithm>
#include <array>
#include <vector>

namespace KEL {

namespace {

constexpr int32_t kUnsupported = kErrBitstreamParse;

// Table entries are 32-bit words.
//
// Leaf (bit 31 clear): the first code word under the index.
//   bits 0-6    bits of the run of whole code words that starts with it,
//               sign bits included
//   bits 7-11   the number of code words in that run (1 when the first
//               has escapes)
//   bits 12-17  the first code word's length at this level plus its sign
//               bits
//   bits 18-19  its escaped values (codebook 11 only)
// Link (bit 31 set): the code word is longer than this level.
//   bits 0-4    bits this level consumes
//   bits 5-9    bits the next level looks up
//   bits 10-30  where the next level's table starts
constexpr uint32_t kLink = 0x80000000u;
constexpr uint32_t kEscapes = 3u << 18;
// Widest look-up below the root; the longest code word (19 bits, scale
// factors) thus needs two levels.
constexpr int kMaxLevelBits = 10;
// Longest tree path accepted: deeper means a broken tree.
constexpr int kMaxDepth = 32;
// Largest values of the entry fields.
constexpr int kMaxRun = 31;
constexpr int kMaxRunBits = 127;
constexpr int kMaxFirstBits = 63;
constexpr size_t kMaxOffset = 0x1FFFFF;
// Bits one 64-bit load holds at least, whatever the bit offset.
constexpr int kLoadBits = 57;

uint32_t leaf_entry(int first_bits, int escapes, int run_bits, int run_count)
{
    return static_cast<uint32_t>(run_bits) | (static_cast<uint32_t>(run_count) << 7) |
           (static_cast<uint32_t>(first_bits) << 12) | (static_cast<uint32_t>(escapes) << 18);
}

uint32_t link_entry(int level_bits, int next_bits, size_t offset)
{
    return kLink | static_cast<uint32_t>(level_bits) | (static_cast<uint32_t>(next_bits) << 5) |
           (static_cast<uint32_t>(offset) << 10);
}

int run_bits_of(uint32_t entry)
{
    return static_cast<int>(entry & 127u);
}
int run_count_of(uint32_t entry)
{
    return static_cast<int>((entry >> 7) & 31u);
}
int first_bits_of(uint32_t entry)
{
    return static_cast<int>((entry >> 12) & 63u);
}
int escapes_of(uint32_t entry)
{
    return static_cast<int>((entry >> 18) & 3u);
}

// Follows the links of an entry looked up from word (the next bits, first
// in the most significant place) down to its leaf; *used receives the bits
// the link levels consumed.
uint32_t resolve_link(const uint32_t* entries, uint32_t entry, uint64_t word, int* used)
{
    int bits = 0;
    do {
        bits += static_cast<int>(entry & 31u);
        const int next = static_cast<int>((entry >> 5) & 31u);
        entry = entries[((entry >> 10) & 0x1FFFFFu) + static_cast<size_t>((word << bits) >> (64 - next))];
    } while ((entry & kLink) != 0);
    *used = bits;
    return entry;
}

// A decoding tree of aactables in either form: pairs (codebooks 0 to 10)
// or quadruples with escape counts (codebook 11).
struct TreeView {
    const int (*pairs)[2] = nullptr;
    const int (*quads)[4] = nullptr;

    int child(int node, int bit) const { return pairs != nullptr ? pairs[node][bit] : quads[node][bit]; }
    int escapes(int node, int bit) const { return quads != nullptr ? quads[node][2 + bit] : 0; }
};

// Where following bits of an index from a node ends: at a leaf (a whole
// code word) or, when the bits run out first, at an inner node.
struct Step {
    bool leaf = false;
    int length = 0; // bits followed
    int signs = 0;
    int escapes = 0;
    int node = 0;
};

// Follows the bits from..width-1 of a width-bit index, most significant
// first, from node.
Step follow(const TreeView& tree, int node, uint32_t index, int width, int from)
{
    Step step;
    for (int b = from; b < width; ++b) {
        const int bit = static_cast<int>((index >> (width - 1 - b)) & 1u);
        const int entry = tree.child(node, bit);
        ++step.length;
        if (entry <= 0) {
            step.leaf = true;
            step.signs = -entry;
            step.escapes = tree.escapes(node, bit);
            return step;
        }
        node = entry;
    }
    step.node = node;
    return step;
}

// Length of the longest code word below node; -1 for a broken tree (a link
// that does not lead further on, or a path deeper than kMaxDepth).
int depth_below(const TreeView& tree, int node, int depth = 0)
{
    if (depth > kMaxDepth)
        return -1;
    int deepest = 0;
    for (int bit = 0; bit < 2; ++bit) {
        const int entry = tree.child(node, bit);
        int below = 0;
        if (entry > 0) {
            if (entry <= node)
                return -1;
            below = depth_below(tree, entry, depth + 1);
            if (below < 0)
                return -1;
        }
        deepest = std::max(deepest, 1 + below);
    }
    return deepest;
}

// The most bits a code word below node takes with its sign bits, depth
// bits already followed; the tree is known to be sound.
int widest_code(const TreeView& tree, int node, int depth = 0)
{
    int widest = 0;
    for (int bit = 0; bit < 2; ++bit) {
        const int entry = tree.child(node, bit);
        widest = std::max(widest, entry > 0 ? widest_code(tree, entry, depth + 1) : depth + 1 - entry);
    }
    return widest;
}

struct CodeTable {
    int root_bits = 0;
    // Look-ups that one load always serves: kLoadBits over the most bits
    // one look-up can take (a run, or the longest code word with its sign
    // bits; escapes are read apart).
    int per_load = 1;
    std::vector<uint32_t> entries; // root first, then the deeper levels
};

// Fills the width-bit table at offset for the code words below node;
// deeper levels are appended. False for a broken tree.
bool fill(CodeTable& table, const TreeView& tree, size_t offset, int width, int node, bool root)
{
    for (uint32_t index = 0; index < (1u << width); ++index) {
        const Step first = follow(tree, node, index, width, 0);
        if (!first.leaf) {
            const int below = depth_below(tree, first.node);
            if (below <= 0)
                return false;
            const int next = std::min(below, kMaxLevelBits);
            const size_t at = table.entries.size();
            if (at > kMaxOffset)
                return false;
            table.entries.resize(at + (size_t{1} << next));
            table.entries[offset + index] = link_entry(width, next, at);
            if (!fill(table, tree, at, next, first.node, false))
                return false;
            continue;
        }
        // Code words that follow the first one wholly inside the window
        // (their sign bits may reach past it) join its run; a code word
        // with escapes ends the run, as only the first may carry them.
        int run_bits = first.length + first.signs;
        if (run_bits > kMaxFirstBits)
            return false;
        int run = 1;
        while (root && first.escapes == 0 && run_bits < width && run < kMaxRun) {
            const Step next = follow(tree, 0, index, width, run_bits);
            if (!next.leaf || next.escapes != 0 || run_bits + next.length + next.signs > kMaxRunBits)
                break;
            run_bits += next.length + next.signs;
            ++run;
        }
        table.entries[offset + index] = leaf_entry(first.length + first.signs, first.escapes, run_bits, run);
    }
    return true;
}

CodeTable build_table(const TreeView& tree)
{
    CodeTable table;
    if (tree.pairs == nullptr && tree.quads == nullptr)
        return table;
    const int depth = depth_below(tree, 0);
    if (depth <= 0)
        return table;
    table.root_bits = std::min(depth, AACBitReader::kRootBits);
    table.entries.assign(size_t{1} << table.root_bits, 0);
    if (!fill(table, tree, 0, table.root_bits, 0, true))
        return CodeTable();
    int widest = widest_code(tree, 0);
    for (size_t index = 0; index < (size_t{1} << table.root_bits); ++index)
        if ((table.entries[index] & kLink) == 0)
            widest = std::max(widest, run_bits_of(table.entries[index]));
    if (widest > kLoadBits)
        return CodeTable();
    table.per_load = kLoadBits / widest;
    return table;
}

// Every codebook's table, built once on first use.
struct CodeTables {
    std::array<CodeTable, AACBitReader::kCodebooks> books;

    CodeTables()
    {
        for (int cb = 0; cb < AACBitReader::kCodebooks; ++cb) {
            TreeView tree;
            if (cb == 0)
                tree.pairs = aac_scale_factor_tree();
            else if (cb < AACBitReader::kCodebooks - 1)
                tree.pairs = aac_spectrum_tree(cb);
            else
                tree.quads = aac_escape_tree();
            books[static_cast<size_t>(cb)] = build_table(tree);
        }
    }
};

const CodeTables& code_tables()
{
    static const CodeTables tables;
    return tables;
}

} // namespace

AACBitReader::AACBitReader(Bitstream& bits)
    : base_(bits.current), size_(std::max<int64_t>(bits.bytes_left, 0)), pos_(bits.bit_offset), limit_(size_ * 8)
{
}

void AACBitReader::store(Bitstream& bits) const
{
    bits.current = base_ + (pos_ >> 3);
    bits.bit_offset = static_cast<int32_t>(pos_ & 7);
    bits.bytes_left = static_cast<int32_t>((limit_ >> 3) - (pos_ >> 3));
}

void AACBitReader::align()
{
    if (error != 0)
        return;
    if ((pos_ & 7) != 0) {
        if ((limit_ >> 3) == (pos_ >> 3)) {
            error = kEndOfData;
            return;
        }
        pos_ &= ~int64_t{7};
        limit_ -= 8;
    }
    if ((limit_ >> 3) == (pos_ >> 3))
        error = kEndOfData;
}

void AACBitReader::move_gain(int steps)
{
    if (error != 0)
        return;
    if (!fits(8)) {
        error = kEndOfData;
        return;
    }
    const int gain = static_cast<int>(peek() >> 56);
    if (gain == 0)
        return;
    const unsigned value = static_cast<unsigned>(std::clamp(gain + steps, 0, 255));
    unsigned char* at = base_ + (pos_ >> 3);
    const int offset = static_cast<int>(pos_ & 7);
    if (offset == 0) {
        at[0] = static_cast<unsigned char>(value);
        return;
    }
    // The field straddles two bytes: the top offset bits of the first and
    // the low 8 - offset bits of the second are kept.
    const unsigned spread = value << (8 - offset);
    at[0] = static_cast<unsigned char>((at[0] & (0xFF00u >> offset)) | (spread >> 8));
    at[1] = static_cast<unsigned char>((at[1] & (0xFFu >> offset)) | (spread & 0xFFu));
}

void AACBitReader::skip_escape()
{
    // Count the leading 1 bits 57 at a time (a look-up holds at least 57
    // of the stream's bits); the run may not reach the bound.
    const int64_t start = pos_;
    int64_t ones = 0;
    for (;;) {
        const uint64_t inverted = ~peek();
        const int run = inverted == 0 ? 64 : __builtin_clzll(inverted);
        if (run < 57) {
            ones += run;
            break;
        }
        ones += 57;
        pos_ += 57;
        if (pos_ > limit_)
            break;
    }
    pos_ = start;
    if (!fits(2 * ones + 5)) // the ones, the 0, then 4 + ones bits
        error = kEndOfData;
    else
        pos_ += 2 * ones + 5;
}

void AACBitReader::skip_codes(int codebook, int count)
{
    if (error != 0 || count <= 0)
        return;
    if (codebook < 0 || codebook >= kCodebooks) {
        error = kUnsupported;
        return;
    }
    const CodeTable& table = code_tables().books[static_cast<size_t>(codebook)];
    if (table.entries.empty()) {
        error = kUnsupported;
        return;
    }
    const uint32_t* entries = table.entries.data();
    const int shift = 64 - table.root_bits;
    int64_t pos = pos_;
    while (count > 0) {
        if (pos + kLoadBits > limit_) {
            // Near the bound: one code word at a time, each checked.
            pos_ = pos;
            const uint64_t word = peek();
            uint32_t entry = entries[word >> shift];
            int bits = 0;
            if ((entry & kLink) == 0) {
                const bool whole = run_count_of(entry) <= count;
                bits = whole ? run_bits_of(entry) : first_bits_of(entry);
                count -= whole ? run_count_of(entry) : 1;
            } else {
                int used = 0;
                entry = resolve_link(entries, entry, word, &used);
                bits = used + first_bits_of(entry);
                --count;
            }
            // A code word that crosses the bound is an error whatever the
            // bits past the bound made of it: its part before the bound is
            // no whole code word.
            if (!fits(bits)) {
                error = kEndOfData;
                return;
            }
            pos_ += bits;
            for (int escaped = escapes_of(entry); escaped > 0 && error == 0; --escaped)
                skip_escape();
            if (error != 0)
                return;
            pos = pos_;
            continue;
        }
        // Far from the bound: per_load look-ups straight from one load,
        // unchecked (everything up to kLoadBits lies inside the bound).
        const unsigned char* at = base_ + (pos >> 3);
        uint64_t word = 0;
        std::memcpy(&word, at, sizeof word);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        word = __builtin_bswap64(word);
#endif
        word <<= pos & 7;
        int used = 0;
        uint32_t entry = 0;
        int lookups = table.per_load;
        do {
            entry = entries[word >> shift];
            int bits = 0;
            if ((entry & kLink) == 0) {
                const bool whole = run_count_of(entry) <= count;
                bits = whole ? run_bits_of(entry) : first_bits_of(entry);
                count -= whole ? run_count_of(entry) : 1;
            } else {
                int levels = 0;
                entry = resolve_link(entries, entry, word, &levels);
                bits = levels + first_bits_of(entry);
                --count;
            }
            word <<= bits;
            used += bits;
        } while (--lookups > 0 && count > 0 && (entry & kEscapes) == 0);
        pos += used;
        if ((entry & kEscapes) != 0) {
            pos_ = pos;
            for (int escaped = escapes_of(entry); escaped > 0 && error == 0; --escaped)
                skip_escape();
            if (error != 0)
                return;
            pos = pos_;
        }
    }
    pos_ = pos;
}

} // namespace KEL
