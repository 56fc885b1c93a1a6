#include "mp3/wordreader.h"

#include "mp3/mpegheader.h"

namespace KEL {

WordRead WordReader::read(long long pos, unsigned int& word)
{
    if (pos < base_ || pos + 4 > base_ + static_cast<long long>(length_)) {
        length_ = 0;
        base_ = pos;
        if (fseeko(f_, pos, SEEK_SET) != 0)
            return WordRead::failed;
        length_ = std::fread(window_.data(), 1, window_.size(), f_);
        if (length_ < 4)
            return std::feof(f_) ? WordRead::end_of_file : WordRead::failed;
    }
    word = mpeg_header_word(window_.data() + (pos - base_));
    return WordRead::ok;
}

} // namespace KEL
