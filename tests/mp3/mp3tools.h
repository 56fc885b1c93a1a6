// Helpers shared by the MP3 writing tests: streams made by sox and lame,
// ffprobe's view of a stream's frames and duration, and ffmpeg's decode of
// every frame without gapless trimming.
#ifndef KEL_TESTS_MP3_MP3TOOLS_H
#define KEL_TESTS_MP3_MP3TOOLS_H

#include "core/bshandle.h"
#include "pcm/oracle.h"

#include <string>
#include <utility>
#include <vector>

namespace KEL {
namespace test {

// A handle on a frame of which only the first `readable` bytes can be read
// back, as from a damaged backing store.
class ShortHandle : public BSHandle {
public:
    ShortHandle(const Bytes& frame, int readable);
    int get_bytes(void* dest, int size) override;

private:
    Bytes frame_;
    int readable_;
};

// The scratch folder of the test program (removed at exit).
TempDir& mp3_scratch();

// Standard output of a tool that must succeed.
std::string capture(const std::vector<std::string>& argv);

// A WAVE file of `seconds` seconds made by sox: a 330 Hz sine on the left
// and pink noise on the right (the sine alone for one channel), so that the
// encoder uses its bit reservoir. Made once per name.
std::string test_wave(const std::string& name, int rate, int channels, double seconds);

// test_wave encoded by lame with the options; made once per name.
std::string lame_file(const std::string& name, int rate, int channels, const std::vector<std::string>& options);

// (position, size) of every audio frame as ffprobe demuxes the file.
std::vector<std::pair<long long, int>> probe_frames(const std::string& path);

// The stream's duration in seconds as ffprobe reports it.
double probe_duration(const std::string& path);

// Every frame decoded by ffmpeg, nothing trimmed: left and right lanes
// (mono counts as both).
Samples ffmpeg_all_frames(const std::string& path);

// The bytes of every audio frame of a file, in order.
std::vector<Bytes> frames_of(const std::string& path);

} // namespace test
} // namespace KEL

#endif
