// An encoder component ("aenc") on an FFmpeg encoder: interleaved linear
// PCM in, one compressed packet per produce call out.
//
// Input is buffered as whole PCM frames (up to kMaxBufferedBytes; beyond
// that append takes less and says so). Whenever a packet is asked for and
// a block of frames_per_packet frames is buffered, the block is converted
// to the encoder's planar sample format and sent to FFmpeg.
//
// Output. produce_output_packets writes at most one packet: status
// kProduceOutput, or kProduceOutputMore when the next packet is already
// known to follow; kProduceNeedsInput with 0 bytes when the encoder needs
// more input first (an encoder with delay gives nothing for its first
// block). A packet larger than the buffer stays for the next call, which
// fails with kCodecErrNotEnoughBufferSpace meanwhile.
//
// End of stream. For an encoder that holds audio back (AAC), a produce call
// made while no input at all is buffered, after blocks were sent, means the
// end of the stream: the encoder is drained and gives its remaining packets
// one per call, then 0 bytes with kProduceNeedsInput. After the drain only
// reset makes it take input again. An encoder without delay (Apple
// Lossless) is never drained; a partial block stays buffered.
//
// Reset drops buffered input and output and reopens FFmpeg's encoder.
#ifndef KEL_CODEC_CODECENCODER_H
#define KEL_CODEC_CODECENCODER_H

#include "codec/componentinstancerecord.h"
#include "codec/ffcodeccontext.h"
#include "codec/lpcmformat.h"

#include <cstdint>
#include <vector>

namespace KEL {

class CodecEncoder : public ComponentInstanceRecord {
public:
    static constexpr size_t kMaxBufferedBytes = 4u << 20;

    explicit CodecEncoder(int32_t subtype);
    ~CodecEncoder() override;

    int reset() override;
    int append_input_data(const void* data, uint32_t* io_bytes, uint32_t* io_packets,
                          const AudioStreamPacketDescription* descriptions) override;
    int produce_output_packets(void* out, uint32_t* io_bytes, uint32_t* io_packets,
                               AudioStreamPacketDescription* descriptions, uint32_t* status) override;
    int get_property(int32_t id, uint32_t* io_size, void* data) override;

protected:
    int configure(const void* cookie, uint32_t cookie_size) override;

    // The subclass's checks and settings: the input is known to be PCM of
    // in_format_; fill settings (codec, sample format, bit rate) and set
    // frames_per_packet_.
    virtual int prepare(FFCodecSettings& settings) = 0;
    // The output description after the encoder opened ("ofmt").
    virtual void complete_output() = 0;
    // Whether the encoder holds audio back and is drained at the end.
    virtual bool drains() const = 0;
    // The largest packet the encoder can give ("pakb").
    virtual uint32_t max_packet_bytes() const = 0;
    // The magic cookie ("kuki"); FFmpeg's extradata unless overridden.
    virtual std::vector<uint8_t> cookie() const;

    // Configures again with the current descriptions (after a property
    // change); a no-op before initialize.
    int restart();

    FFCodecContext codec_;
    LPCMFormat in_format_;
    int frames_per_packet_ = 0;

private:
    // Gets the next packet into packet_ as far as the buffered input allows;
    // may_drain allows ending the stream. 0 or an error code.
    int fill_packet(bool may_drain);
    int send_block();
    void drop_buffers();
    size_t buffered_frames() const;

    std::vector<uint8_t> fifo_; // buffered PCM, from fifo_start_ on
    size_t fifo_start_ = 0;
    AVFrame* frame_ = nullptr;
    AVPacket* packet_ = nullptr;
    bool has_packet_ = false;
    bool sent_any_ = false;   // a block went to the encoder since it opened
    bool sent_short_ = false; // a block shorter than the encoder's frame size went: reopen before the next
    bool draining_ = false;
    bool finished_ = false;
    int deferred_error_ = 0;
    int64_t next_pts_ = 0;
};

} // namespace KEL

#endif
