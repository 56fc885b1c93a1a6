#include "m4a/aacreference.h"

#include "core/fourcc.h"
#include "m4a/aactables.h"

namespace KEL {
namespace test {

namespace {

// The codebook whose values of magnitude 16 carry escapes.
constexpr int kEscape = 11;

} // namespace

int skip_huffman_code(const int (*tree)[2], Bitstream& bits)
{
    int node = 0;
    for (;;) {
        int err = 0;
        const int bit = bits.get_bits_le8(1, err);
        if (err != 0)
            return err;
        const int entry = tree[node][bit];
        if (entry > 0)
            node = entry;
        else
            return entry == 0 ? 0 : bits.skip_bits(-entry);
    }
}

int skip_scale_factor(Bitstream& bits)
{
    const int (*tree)[2] = aac_scale_factor_tree();
    return tree != nullptr ? skip_huffman_code(tree, bits) : fourcc("Ebps");
}

int skip_spectral_data(unsigned char codebook, Bitstream& bits)
{
    if (codebook >= 1 && codebook < kEscape) {
        const int (*tree)[2] = aac_spectrum_tree(codebook);
        return tree != nullptr ? skip_huffman_code(tree, bits) : fourcc("Ebps");
    }
    if (codebook != kEscape)
        return fourcc("Ebps");
    const int (*tree)[4] = aac_escape_tree();
    if (tree == nullptr)
        return fourcc("Ebps");
    int node = 0;
    for (;;) {
        int err = 0;
        const int bit = bits.get_bits_le8(1, err);
        if (err != 0)
            return err;
        const int entry = tree[node][bit];
        if (entry > 0) {
            node = entry;
            continue;
        }
        if (entry < 0 && (err = bits.skip_bits(-entry)) != 0)
            return err;
        // Each escaped value: a prefix of 1 bits ended by a 0, then an
        // (4 + ones)-bit magnitude.
        for (int escaped = tree[node][2 + bit]; escaped > 0; --escaped) {
            int width = 4;
            while (bits.get_bits_le8(1, err) == 1 && err == 0)
                ++width;
            if (err != 0)
                return err;
            if ((err = bits.skip_bits(width)) != 0)
                return err;
        }
        return 0;
    }
}

} // namespace test
} // namespace KEL
