#include "m4a/m4afixtures.h"

#include "core/bshandlemem.h"
#include "core/fakeformat.h"

#include <sstream>

namespace KEL {
namespace test {

Bytes be16(uint32_t v)
{
    return {static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
}

Bytes be32(uint32_t v)
{
    return cat({be16(v >> 16), be16(v)});
}

Bytes tag(const char* four)
{
    return Bytes(four, four + 4);
}

Bytes cat(const std::vector<Bytes>& parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

int read8(const Bytes& b, size_t bit)
{
    int v = 0;
    for (size_t i = bit; i < bit + 8; ++i)
        v = (v << 1) | ((b[i / 8] >> (7 - i % 8)) & 1);
    return v;
}

Bytes atom(const char* type, const Bytes& body)
{
    return cat({be32(static_cast<uint32_t>(body.size() + 8)), tag(type), body});
}

Bytes full_atom(const char* type, const Bytes& body)
{
    return atom(type, cat({be32(0), body}));
}

Bytes stts_atom(const std::vector<std::pair<uint32_t, uint32_t>>& runs)
{
    Bytes body = be32(static_cast<uint32_t>(runs.size()));
    for (const auto& r : runs)
        body = cat({body, be32(r.first), be32(r.second)});
    return full_atom("stts", body);
}

Bytes stsc_atom(const std::vector<std::vector<uint32_t>>& entries)
{
    Bytes body = be32(static_cast<uint32_t>(entries.size()));
    for (const auto& e : entries)
        for (uint32_t v : e)
            body = cat({body, be32(v)});
    return full_atom("stsc", body);
}

Bytes stsz_atom(uint32_t constant, uint32_t count, const std::vector<uint32_t>& sizes)
{
    Bytes body = cat({be32(constant), be32(count)});
    for (uint32_t s : sizes)
        body = cat({body, be32(s)});
    return full_atom("stsz", body);
}

Bytes stco_atom(const std::vector<uint32_t>& offsets)
{
    Bytes body = be32(static_cast<uint32_t>(offsets.size()));
    for (uint32_t o : offsets)
        body = cat({body, be32(o)});
    return full_atom("stco", body);
}

Bytes esds_body(uint32_t max_rate, uint32_t avg_rate, int frequency_index, int channel_config)
{
    const uint32_t asc = (2u << 11) | (static_cast<uint32_t>(frequency_index) << 7) |
                         (static_cast<uint32_t>(channel_config) << 3);
    // Decoder configuration (tag 4, 17 bytes): object type, stream type,
    // 24-bit buffer size, bit rates, decoder specific information (tag 5).
    const Bytes config = cat({Bytes{4, 17, 0x40, 0x15, 0, 0, 0}, be32(max_rate), be32(avg_rate), Bytes{5, 2}, be16(asc)});
    // ES descriptor (tag 3, 25 bytes, four-byte size form): ES id, flags,
    // the configuration, SL configuration (tag 6).
    return cat({Bytes{3, 0x80, 0x80, 0x80, 25, 0, 1, 0}, config, Bytes{6, 1, 2}});
}

Bytes mp4a_entry(uint16_t channels, uint32_t rate_16_16, const Bytes& esds)
{
    // Reserved, data reference index, version, revision, vendor, channels,
    // sample size, compression id, packet size, rate.
    return atom("mp4a", cat({Bytes(6, 0), be16(1), be32(0), be32(0), be16(channels), be16(16), be32(0),
                             be32(rate_16_16), full_atom("esds", esds)}));
}

Bytes alac_entry(uint16_t version, uint8_t compatible, uint8_t depth, uint8_t channels, uint32_t rate)
{
    // Frame length, compatible version, depth, tuning, channels, maximum
    // run, maximum frame bytes, average bit rate, sample rate.
    const Bytes config = cat({be32(4096), Bytes{compatible, depth, 40, 10, 14, channels}, be16(255), be32(0), be32(0),
                              be32(rate)});
    return atom("alac", cat({Bytes(6, 0), be16(1), be16(version), be16(0), be32(0), be16(channels), be16(depth),
                             be32(0), be32(rate << 16), full_atom("alac", config)}));
}

Bytes m4a_file(const std::vector<TrackSpec>& tracks, const char* major)
{
    Bytes traks;
    for (const TrackSpec& t : tracks) {
        const Bytes stsd = full_atom("stsd", t.entry.empty() ? be32(0) : cat({be32(1), t.entry}));
        const Bytes mdia = atom("mdia", atom("minf", atom("stbl", cat({stsd, t.tables}))));
        traks = cat({traks, atom("trak", cat({full_atom("tkhd", Bytes(80, 0)), mdia}))});
    }
    return cat({atom("ftyp", cat({tag(major), be32(0), tag("M4A ")})),
                atom("moov", cat({full_atom("mvhd", Bytes(96, 0)), traks})), atom("mdat", Bytes(64, 0xA5))});
}

MemFile::MemFile(const Bytes& bytes) : bytes_(bytes)
{
    file_ = bytes_.empty() ? std::tmpfile() : fmemopen(bytes_.data(), bytes_.size(), "r");
}

MemFile::~MemFile()
{
    if (file_ != nullptr)
        std::fclose(file_);
}

std::string make_aac(const std::string& name, int rate, int channels, int kbps, double seconds, bool faststart)
{
    const std::string path = scratch().path(name);
    std::vector<std::string> args = {"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i",
                                     "sine=frequency=440:sample_rate=" + std::to_string(rate) +
                                         ":duration=" + std::to_string(seconds),
                                     "-ac", std::to_string(channels), "-c:a", "aac", "-b:a", std::to_string(kbps) + "k"};
    if (faststart)
        args.insert(args.end(), {"-movflags", "+faststart"});
    args.push_back(path);
    return file_exists(path) || run_tool(args) == 0 ? path : std::string();
}

std::string make_alac(const std::string& name, int rate, int channels, int bits, int frames)
{
    const std::string path = scratch().path(name);
    const int rc = file_exists(path) ? 0
                                     : run_tool({"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i",
                                                 "anoisesrc=sample_rate=" + std::to_string(rate) + ":amplitude=0.4:seed=7",
                                                 "-af", "atrim=end_sample=" + std::to_string(frames), "-ac",
                                                 std::to_string(channels), "-c:a", "alac", "-sample_fmt",
                                                 bits == 16 ? "s16p" : "s32p", path});
    return rc == 0 ? path : std::string();
}

long long locate(const Bytes& file, const std::string& route)
{
    long long begin = 0, end = static_cast<long long>(file.size()), found = -1;
    std::istringstream parts(route);
    std::string want;
    while (std::getline(parts, want, '/')) {
        found = -1;
        for (long long p = begin; p + 8 <= end;) {
            const long long size = get_be32(file, p) == 0 ? end - p : get_be32(file, p);
            if (size < 8)
                return -1;
            if (std::string(file.begin() + p + 4, file.begin() + p + 8) == want) {
                found = p;
                // "stsd" has version, flags and a count before its entries;
                // a sample entry 28 bytes of its own fields.
                begin = p + 8 + (want == "stsd" ? 8 : want == "mp4a" || want == "alac" ? 28 : 0);
                end = p + size;
                break;
            }
            p += size;
        }
        if (found < 0)
            return -1;
    }
    return found;
}

PacketSet::~PacketSet()
{
    for (Packet* p : packets_)
        p->release();
}

void PacketSet::add(const Bytes& bytes, int frames)
{
    auto* handle = new BSHandleMem(static_cast<int>(bytes.size()));
    handle->init_with_copy(bytes.data());
    packets_.push_back(new FakePacket(44100.0f, frames, handle));
    handle->release();
    bytes_.push_back(bytes);
}

void PacketSet::add_unreadable(int size, int frames)
{
    auto* handle = new BSHandleMem(size); // never filled: delivers 0 bytes
    packets_.push_back(new FakePacket(44100.0f, frames, handle));
    handle->release();
    bytes_.push_back(Bytes(static_cast<size_t>(size), 0));
}

long long PacketSet::total_bytes() const
{
    long long sum = 0;
    for (const Bytes& b : bytes_)
        sum += static_cast<long long>(b.size());
    return sum;
}

} // namespace test
} // namespace KEL
