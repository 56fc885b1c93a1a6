// The Apple Lossless encoder component ("alac") on FFmpeg's ALAC encoder.
//
// Input: interleaved signed integer PCM of 16 or 24 bits (flags 14), which
// is handed to FFmpeg as planar 16-bit, or as planar 32-bit with the 24-bit
// sample in the top bits. Output: "alac" with format flags 1 (16 bits) or 3
// (24 bits) and one packet per frames_per_packet frames of the output
// description (4096 when 0; 1 to 4096). FFmpeg's encoder works in blocks
// of 4096 frames and takes a shorter block only as the last of a stream, so
// with shorter packets it is reopened before every block; packets carry no
// state from one to the next either way. It has no delay: each full block
// gives its packet at once, and nothing is drained at the end.
//
// Properties: "ofmt", "pakb" (an uncompressed frame of one packet: element
// headers, samples, END element), "kuki" (the 48-byte "frma" + "alac"
// layout of ALACCookie, with this encoder's frame length).
#ifndef KEL_CODEC_CODECENCODERALAC_H
#define KEL_CODEC_CODECENCODERALAC_H

#include "codec/codecencoder.h"

namespace KEL {

class CodecEncoderALAC : public CodecEncoder {
public:
    static constexpr int kMaxFramesPerPacket = 4096;

    CodecEncoderALAC();

protected:
    int prepare(FFCodecSettings& settings) override;
    void complete_output() override;
    bool drains() const override { return false; }
    uint32_t max_packet_bytes() const override;
    std::vector<uint8_t> cookie() const override;
};

} // namespace KEL

#endif
