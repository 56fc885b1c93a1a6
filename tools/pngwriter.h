// An RGB picture with the few drawing operations the waveform view needs
// (rectangles, vertical lines, digits for the time axis), written as a PNG
// file with libpng.
#ifndef KEL_TOOLS_PNGWRITER_H
#define KEL_TOOLS_PNGWRITER_H

#include <cstdint>
#include <string>
#include <vector>

namespace KEL::cli {

struct Rgb {
    uint8_t r;
    uint8_t g;
    uint8_t b;
};

class PngWriter {
public:
    static constexpr int kMaxSide = 16384;
    // Glyph cell of text(): 5x7 pixels drawn at `kTextScale`, plus spacing.
    static constexpr int kTextScale = 1;
    static constexpr int kGlyphWidth = 6 * kTextScale;
    static constexpr int kGlyphHeight = 7 * kTextScale;

    // width and height must lie in 1..kMaxSide.
    PngWriter(int width, int height, Rgb background);

    int width() const { return width_; }
    int height() const { return height_; }

    // Everything outside the picture is clipped away.
    void set(int x, int y, Rgb c);
    void fill_rect(int x0, int y0, int x1, int y1, Rgb c); // [x0, x1) x [y0, y1)
    void vline(int x, int y0, int y1, Rgb c);              // both ends included, any order
    // Digits, '.', ':', '-', 's' and blanks with the top-left corner at x, y;
    // other characters are left out.
    void text(int x, int y, const std::string& s, Rgb c);
    static int text_width(const std::string& s);

    // Writes the picture to `path` under a temporary name first; a failure
    // is reported and throws Exit with no file left behind.
    void write(const std::string& path) const;

private:
    int width_;
    int height_;
    std::vector<uint8_t> pixels_; // rows of width_ RGB triples
};

} // namespace KEL::cli

#endif
