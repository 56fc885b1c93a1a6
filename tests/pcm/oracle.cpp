#include "oracle.h"

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

extern char** environ;

namespace KEL {
namespace test {

namespace {

std::string temp_parent()
{
    const char* dir = std::getenv("TMPDIR");
    return dir != nullptr && *dir != '\0' ? dir : "/tmp";
}

void remove_tree(const std::string& path)
{
    if (DIR* d = opendir(path.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name == "." || name == "..")
                continue;
            const std::string child = path + "/" + name;
            struct stat st;
            if (lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
                remove_tree(child);
            else
                unlink(child.c_str());
        }
        closedir(d);
    }
    rmdir(path.c_str());
}

} // namespace

void ClipCloser::operator()(Clip* clip) const
{
    if (clip != nullptr) {
        clip->close(nullptr);
        delete clip;
    }
}

ClipPtr open_clip(const std::string& path, int& err)
{
    return ClipPtr(Clip::open(path.c_str(), &err, nullptr));
}

Samples decode_clip(Clip& clip, float gain)
{
    Samples s;
    for (int i = 0; i < clip.packet_count; ++i) {
        const int n = clip.packet_frame_count(i, nullptr);
        // Filled with a value no decoder produces, so that frames left
        // unwritten show.
        std::vector<float> l(static_cast<size_t>(n), 7.0f), r(static_cast<size_t>(n), 7.0f);
        float* out[2] = {l.data(), r.data()};
        int err = 0;
        const int got = clip.packet_decode_play(i, out, &err, gain);
        EXPECT_EQ(err, 0) << "packet " << i;
        EXPECT_EQ(got, n) << "packet " << i;
        s.left.insert(s.left.end(), l.begin(), l.end());
        s.right.insert(s.right.end(), r.begin(), r.end());
    }
    return s;
}

uint32_t bits_of(float f)
{
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

::testing::AssertionResult same_bits(const std::vector<float>& got, const std::vector<float>& want)
{
    if (got.size() < want.size())
        return ::testing::AssertionFailure() << "only " << got.size() << " of " << want.size() << " samples";
    for (size_t i = 0; i < want.size(); ++i) {
        if (bits_of(got[i]) != bits_of(want[i]))
            return ::testing::AssertionFailure() << "sample " << i << ": " << got[i] << " != " << want[i];
    }
    return ::testing::AssertionSuccess();
}

void split(const Decoded& d, std::vector<float>& left, std::vector<float>& right)
{
    left.clear();
    right.clear();
    for (size_t f = 0; f < d.frames(); ++f) {
        left.push_back(d.at(f, 0));
        right.push_back(d.at(f, d.channels > 1 ? 1 : 0));
    }
}

std::vector<int32_t> integers(const Decoded& d, int bits)
{
    const double scale = bits == 16 ? 32768.0 : 8388608.0;
    std::vector<int32_t> v;
    v.reserve(d.samples.size());
    for (float f : d.samples)
        v.push_back(static_cast<int32_t>(static_cast<double>(f) * scale));
    return v;
}

TempDir::TempDir()
{
    std::string pattern = temp_parent() + "/kel-test-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) != nullptr)
        root_ = buffer.data();
}

TempDir::~TempDir()
{
    if (!root_.empty())
        remove_tree(root_);
}

std::vector<std::string> TempDir::entries() const
{
    std::vector<std::string> names;
    if (DIR* d = opendir(root_.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..")
                names.push_back(name);
        }
        closedir(d);
    }
    return names;
}

PrivateTmpdir::PrivateTmpdir() : dir_(new TempDir)
{
    const char* old = std::getenv("TMPDIR");
    had_old_ = old != nullptr;
    if (had_old_)
        old_ = old;
    setenv("TMPDIR", dir_->root().c_str(), 1);
}

PrivateTmpdir::~PrivateTmpdir()
{
    if (had_old_)
        setenv("TMPDIR", old_.c_str(), 1);
    else
        unsetenv("TMPDIR");
    delete dir_;
}

int run_tool(const std::vector<std::string>& argv, const std::string& stdout_path)
{
    if (argv.empty())
        return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const char* out = stdout_path.empty() ? "/dev/null" : stdout_path.c_str();
    posix_spawn_file_actions_addopen(&actions, 1, out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);

    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    pid_t pid = 0;
    const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
        return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool tool_runs(const std::string& name, const std::string& arg)
{
    return run_tool({name, arg}) == 0;
}

bool ffmpeg_decode(const std::string& path, Decoded& out, const std::string& scratch_dir)
{
    Probe probe;
    if (!ffprobe(path, probe, scratch_dir) || probe.channels <= 0)
        return false;
    const std::string raw = scratch_dir + "/ffmpeg-decoded.f32";
    const int rc = run_tool({"ffmpeg", "-nostdin", "-v", "error", "-y", "-i", path, "-f", "f32le", "-c:a", "pcm_f32le", raw});
    if (rc != 0)
        return false;
    const Bytes bytes = read_file(raw);
    std::remove(raw.c_str());
    out.channels = probe.channels;
    out.samples.resize(bytes.size() / 4);
    if (!out.samples.empty())
        std::memcpy(out.samples.data(), bytes.data(), out.samples.size() * 4);
    return true;
}

bool ffprobe(const std::string& path, Probe& out, const std::string& scratch_dir)
{
    const std::string text = scratch_dir + "/ffprobe.txt";
    const int rc = run_tool({"ffprobe", "-v", "error", "-select_streams", "a:0", "-show_entries",
                             "stream=codec_name,sample_rate,channels,bits_per_sample,duration_ts", "-of",
                             "default=noprint_wrappers=1", path},
                            text);
    const Bytes bytes = read_file(text);
    std::remove(text.c_str());
    if (rc != 0)
        return false;
    std::istringstream lines(std::string(bytes.begin(), bytes.end()));
    std::string line;
    bool any = false;
    while (std::getline(lines, line)) {
        const size_t eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        const std::string key = line.substr(0, eq);
        const std::string value = line.substr(eq + 1);
        any = true;
        if (key == "codec_name")
            out.codec = value;
        else if (key == "sample_rate")
            out.sample_rate = std::atoi(value.c_str());
        else if (key == "channels")
            out.channels = std::atoi(value.c_str());
        else if (key == "bits_per_sample")
            out.bits = std::atoi(value.c_str());
        else if (key == "duration_ts")
            out.frames = std::atoll(value.c_str());
    }
    return any && !out.codec.empty();
}

Bytes read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const Bytes& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

bool file_exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

ByteWriter& ByteWriter::tag(const char* four)
{
    bytes.insert(bytes.end(), four, four + 4);
    return *this;
}

ByteWriter& ByteWriter::le16(uint32_t v)
{
    bytes.push_back(static_cast<unsigned char>(v));
    bytes.push_back(static_cast<unsigned char>(v >> 8));
    return *this;
}

ByteWriter& ByteWriter::le32(uint32_t v)
{
    le16(v & 0xFFFF);
    return le16(v >> 16);
}

ByteWriter& ByteWriter::be16(uint32_t v)
{
    bytes.push_back(static_cast<unsigned char>(v >> 8));
    bytes.push_back(static_cast<unsigned char>(v));
    return *this;
}

ByteWriter& ByteWriter::be32(uint32_t v)
{
    be16(v >> 16);
    return be16(v & 0xFFFF);
}

ByteWriter& ByteWriter::be64(uint64_t v)
{
    be32(static_cast<uint32_t>(v >> 32));
    return be32(static_cast<uint32_t>(v));
}

ByteWriter& ByteWriter::raw(const Bytes& more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
    return *this;
}

ByteWriter& ByteWriter::zeros(size_t n)
{
    bytes.insert(bytes.end(), n, 0);
    return *this;
}

uint32_t get_le32(const Bytes& b, size_t at)
{
    return static_cast<uint32_t>(b.at(at)) | static_cast<uint32_t>(b.at(at + 1)) << 8 |
           static_cast<uint32_t>(b.at(at + 2)) << 16 | static_cast<uint32_t>(b.at(at + 3)) << 24;
}

uint16_t get_le16(const Bytes& b, size_t at)
{
    return static_cast<uint16_t>(b.at(at) | b.at(at + 1) << 8);
}

bool parse_riff(const Bytes& file, std::string& form, std::vector<Chunk>& chunks)
{
    if (file.size() < 12 || std::memcmp(file.data(), "RIFF", 4) != 0)
        return false;
    form.assign(file.begin() + 8, file.begin() + 12);
    chunks.clear();
    size_t at = 12;
    while (at + 8 <= file.size()) {
        Chunk chunk;
        chunk.id.assign(file.begin() + static_cast<long>(at), file.begin() + static_cast<long>(at + 4));
        const size_t size = get_le32(file, at + 4);
        const size_t begin = at + 8;
        const size_t end = begin + size <= file.size() ? begin + size : file.size();
        chunk.body.assign(file.begin() + static_cast<long>(begin), file.begin() + static_cast<long>(end));
        chunks.push_back(chunk);
        at = begin + size + (size & 1);
    }
    return true;
}

Bytes build_riff(const std::string& form, const std::vector<Chunk>& chunks)
{
    ByteWriter body;
    body.tag(form.c_str());
    for (const Chunk& c : chunks) {
        body.tag(c.id.c_str()).le32(static_cast<uint32_t>(c.body.size())).raw(c.body);
        if (c.body.size() & 1)
            body.zeros(1);
    }
    ByteWriter file;
    file.tag("RIFF").le32(static_cast<uint32_t>(body.bytes.size())).raw(body.bytes);
    return file.bytes;
}

int find_chunk(const std::vector<Chunk>& chunks, const std::string& id)
{
    for (size_t i = 0; i < chunks.size(); ++i) {
        if (chunks[i].id == id)
            return static_cast<int>(i);
    }
    return -1;
}

} // namespace test
} // namespace KEL
