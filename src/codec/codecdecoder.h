// A decoder component ("adec") on an FFmpeg decoder: compressed packets in,
// interleaved linear PCM out (32-bit float, or signed integers of the output
// description's width; any byte order, normally big-endian: flags 11, 14).
//
// Input. Every appended packet is queued whole (its bytes copied into a
// buffer kept from earlier packets, so that steady decoding allocates
// nothing here); bytes that no packet description covers are padding and
// are dropped. Packets are decoded only when output is asked for.
//
// Output. produce_output_packets fills the buffer with whole frames, taking
// decoded audio first from a partly delivered frame, then from FFmpeg, then
// by decoding the next queued packet. Status kProduceOutput when something
// was written and nothing more is ready, kProduceOutputMore when decoded
// audio or queued packets remain, kProduceNeedsInput (0 bytes) when nothing
// could be written. A packet that fails to decode makes the call fail with
// kCodecErrBadData and is dropped; when frames were already written in that
// call, they are delivered and the failure is reported by the next call.
//
// Reset drops the queue and any decoded audio, and either flushes FFmpeg's
// decoder or reopens it, as the subclass says: a flush is enough where it
// leaves the decoder exactly as a new one (MP3, whose bit reservoir it
// clears), a reopen is needed where it does not (AAC).
//
// This class serves AAC as it stands; MP3 and Apple Lossless derive from it.
#ifndef KEL_CODEC_CODECDECODER_H
#define KEL_CODEC_CODECDECODER_H

#include "codec/componentinstancerecord.h"
#include "codec/ffcodeccontext.h"
#include "codec/lpcmformat.h"

#include <cstdint>
#include <deque>
#include <vector>

namespace KEL {

class CodecDecoder : public ComponentInstanceRecord {
public:
    // Limits on what the queue takes: one packet, and all queued packets.
    static constexpr uint32_t kMaxPacketBytes = 1u << 20;
    static constexpr size_t kMaxQueuedBytes = 8u << 20;

    CodecDecoder(int32_t subtype, AVCodecID codec_id, bool reopen_on_reset);
    ~CodecDecoder() override;

    int reset() override;
    int append_input_data(const void* data, uint32_t* io_bytes, uint32_t* io_packets,
                          const AudioStreamPacketDescription* descriptions) override;
    int produce_output_packets(void* out, uint32_t* io_bytes, uint32_t* io_packets,
                               AudioStreamPacketDescription* descriptions, uint32_t* status) override;
    int get_property(int32_t id, uint32_t* io_size, void* data) override;
    int set_property(int32_t id, uint32_t size, const void* data) override;

protected:
    int configure(const void* cookie, uint32_t cookie_size) override;

    // The subclass's checks and settings before the decoder opens: the
    // input description is in input_; settings holds the codec, rate and
    // channels from it and, as extradata, the stored magic cookie.
    virtual int prepare(const void* cookie, uint32_t cookie_size, FFCodecSettings& settings);
    // A check of one packet before it is decoded; non-zero rejects it.
    virtual int check_packet(const uint8_t* data, size_t size);
    // Decodes a packet without FFmpeg when the subclass knows better: true
    // when it took the packet, with *error 0 and frame filled, or *error set.
    virtual bool decode_by_hand(const uint8_t* data, size_t size, AVFrame* frame, int* error);
    // The largest input packet in bytes (property "pakb").
    virtual uint32_t max_packet_bytes() const;

    // Opens the decoder again with the current settings (after the subclass
    // changed its configuration) and drops everything buffered.
    int restart();

    FFCodecContext codec_;
    std::vector<uint8_t> cookie_; // magic cookie as set; passed as extradata

private:
    // Fills pending_ with the next decoded frame, feeding FFmpeg queued
    // packets as needed. False when there is none: the queue ran dry, or a
    // packet failed and *error says why (the packet is dropped).
    bool next_frame(int* error);
    // Hands one queued packet to FFmpeg or to decode_by_hand: 0 when FFmpeg
    // took it, 1 when decode_by_hand filled pending_, -1 on an error.
    int feed(const std::vector<uint8_t>& packet, int* error);
    void drop_buffers();
    // Keeps a used packet buffer for the next appended packet.
    void recycle(std::vector<uint8_t>&& buffer);

    LPCMFormat out_format_;
    AVCodecID codec_id_;
    bool reopen_on_reset_;
    std::deque<std::vector<uint8_t>> queue_;
    std::vector<std::vector<uint8_t>> spare_; // buffers of packets already fed
    size_t queued_bytes_ = 0;
    AVFrame* pending_ = nullptr; // decoded audio not yet delivered
    int pending_offset_ = 0;     // frames of pending_ already delivered
    bool has_pending_ = false;
    int deferred_error_ = 0;
};

} // namespace KEL

#endif
