// The 4-byte words of an MP3 file's frame scan. The scans read a word at
// every frame, and one a byte further at every step through junk: through a
// 64 KiB window of the file rather than a seek and a read of the stream
// each, which cost two system calls per frame.
#ifndef KEL_MP3_WORDREADER_H
#define KEL_MP3_WORDREADER_H

#include <cstdio>
#include <vector>

namespace KEL {

// Outcome of reading one 4-byte word.
enum class WordRead { ok, end_of_file, failed };

class WordReader {
public:
    explicit WordReader(FILE* f) : f_(f) {}

    // The big-endian word at pos; end_of_file when fewer than 4 bytes are
    // left. The stream's position is wherever the last refill left it.
    WordRead read(long long pos, unsigned int& word);

private:
    FILE* f_;
    std::vector<unsigned char> window_ = std::vector<unsigned char>(65536);
    long long base_ = 0;
    size_t length_ = 0;
};

} // namespace KEL

#endif
