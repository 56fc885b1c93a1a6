#include "pngwriter.h"

#include "cli_common.h"
#include "partialfile.h"

#include <png.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace KEL::cli {

namespace {

struct Glyph {
    char ch;
    std::array<uint8_t, 7> rows; // top to bottom; bit 4 is the leftmost pixel
};

// A 5x7 pixel font, just the characters of time labels.
static constexpr std::array<Glyph, 15> kFont{{
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}}, // zero with a slash
    {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}}, // one with a foot
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}}, // two
    {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}}, // three, flat top
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}}, // four, open
    {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}}, // five
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}}, // six
    {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}}, // seven
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}}, // eight
    {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}}, // nine
    {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}}, // decimal point
    {':', {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00}}, // minutes:seconds
    {'-', {0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00}}, // minus
    {'s', {0x00, 0x00, 0x0E, 0x10, 0x0E, 0x01, 0x1E}}, // seconds unit
    {' ', {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}}, // blank
}};

const Glyph* find_glyph(char ch)
{
    for (const Glyph& g : kFont)
        if (g.ch == ch)
            return &g;
    return nullptr;
}

// libpng reports errors by longjmp; this function keeps only plain
// pointers alive across the setjmp, so nothing needs unwinding.
bool write_png(FILE* f, int width, int height, const uint8_t* pixels)
{
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    if (png == nullptr)
        return false;
    png_infop info = png_create_info_struct(png);
    if (info == nullptr) {
        png_destroy_write_struct(&png, nullptr);
        return false;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_init_io(png, f);
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8,
                 PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < height; ++y)
        png_write_row(png, pixels + static_cast<size_t>(y) * static_cast<size_t>(width) * 3);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

} // namespace

PngWriter::PngWriter(int width, int height, Rgb background) : width_(width), height_(height)
{
    if (width < 1 || height < 1 || width > kMaxSide || height > kMaxSide)
        fail(strprintf("a picture of %d x %d pixels is outside 1..%d on each side", width, height, kMaxSide));
    pixels_.resize(static_cast<size_t>(width) * static_cast<size_t>(height) * 3);
    for (size_t i = 0; i < pixels_.size(); i += 3) {
        pixels_[i] = background.r;
        pixels_[i + 1] = background.g;
        pixels_[i + 2] = background.b;
    }
}

void PngWriter::set(int x, int y, Rgb c)
{
    if (x < 0 || y < 0 || x >= width_ || y >= height_)
        return;
    uint8_t* p = &pixels_[(static_cast<size_t>(y) * static_cast<size_t>(width_) + static_cast<size_t>(x)) * 3];
    p[0] = c.r;
    p[1] = c.g;
    p[2] = c.b;
}

void PngWriter::fill_rect(int x0, int y0, int x1, int y1, Rgb c)
{
    x0 = std::max(x0, 0);
    y0 = std::max(y0, 0);
    x1 = std::min(x1, width_);
    y1 = std::min(y1, height_);
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x)
            set(x, y, c);
}

void PngWriter::vline(int x, int y0, int y1, Rgb c)
{
    if (y0 > y1)
        std::swap(y0, y1);
    fill_rect(x, y0, x + 1, y1 + 1, c);
}

void PngWriter::text(int x, int y, const std::string& s, Rgb c)
{
    for (const char ch : s) {
        if (const Glyph* g = find_glyph(ch)) {
            for (int row = 0; row < 7; ++row)
                for (int col = 0; col < 5; ++col)
                    if (g->rows[static_cast<size_t>(row)] & (0x10 >> col))
                        fill_rect(x + col * kTextScale, y + row * kTextScale, x + (col + 1) * kTextScale,
                                  y + (row + 1) * kTextScale, c);
            x += kGlyphWidth;
        }
    }
}

int PngWriter::text_width(const std::string& s)
{
    int n = 0;
    for (const char ch : s)
        n += find_glyph(ch) != nullptr ? 1 : 0;
    return n * kGlyphWidth;
}

void PngWriter::write(const std::string& path) const
{
    PartialFile partial(path);
    FILE* f = std::fopen(partial.path().c_str(), "wb");
    if (f == nullptr)
        fail_library(KEL_ERR_OPEN_WRITE, path);
    const bool written = write_png(f, width_, height_, pixels_.data());
    if (std::fclose(f) != 0 || !written)
        fail_library(KEL_ERR_IO, path);
    partial.commit();
}

} // namespace KEL::cli
