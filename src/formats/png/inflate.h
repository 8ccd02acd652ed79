// Inflate (RFC 1951 deflate data, optionally inside a zlib wrapper, RFC 1950)
// with bounded memory: the output is pulled in pieces of the caller's choosing
// (a row at a time), the compressed input is pulled from a buffer or from a
// source that hands out consecutive pieces (PNG IDAT chunks, a TIFF strip).
//
//   Inflater inf;                      // zlib wrapper, header checked
//   inf.set_input(data, size);         // or inf.set_source(&source)
//   while (rows left) {
//       int32_t got = inf.read(row, row_size);
//       if (got < 0) return got;      // corrupt or truncated data
//       if (uint32_t(got) < row_size) // the stream ended early
//   }
//
// Memory: one block of about 300 KB (a 256 KB output window holding the
// 32 KB history, and the decoding tables), allocated on the first read.
// The Adler-32 trailer is not checked.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tesslin {

class StreamReader;

// Hands out the compressed input piece by piece.
class InflateSource {
public:
    virtual ~InflateSource() = default;
    // Points *data at the next bytes of input and returns how many there are
    // (they stay valid until the next call); 0 when the input has ended; a
    // negative status on failure (returned by Inflater::read as it is).
    virtual int32_t next(const uint8_t** data) = 0;
};

// The next `count` bytes of a StreamReader, read through its buffer without
// copying (for a TIFF strip: seek the reader to the strip, then inflate).
class ReaderSource final : public InflateSource {
public:
    ReaderSource(StreamReader& reader, uint32_t count) : reader_(reader), left_(count) {}
    int32_t next(const uint8_t** data) override;

private:
    StreamReader& reader_;
    uint32_t left_;
};

class Inflater {
public:
    enum class Header : uint8_t {
        kZlib,   // zlib wrapper: method 8, window up to 32K, no preset dictionary
        kSkip2,  // two wrapper bytes taken without looking at them (PNG)
        kRaw,    // bare deflate data
    };
    struct Options {
        Header header = Header::kZlib;
        // A block of the reserved type 3 ends the stream (as the end of the
        // final block would) instead of being an error.
        bool reserved_block_ends = false;
    };

    Inflater() : Inflater(Options{}) {}
    explicit Inflater(Options options);
    ~Inflater();
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    // The whole input as one buffer (kept by the caller until done).
    void set_input(const uint8_t* data, size_t size);
    // Input pulled from a source (kept by the caller until done).
    void set_source(InflateSource* source);

    // Writes the next n bytes of output to out. Returns n; fewer (possibly 0)
    // when the stream ends first; or a negative status when n bytes cannot be
    // produced: IMG_ERR_BAD_IMAGE for corrupt data, IMG_ERR_READ
    // when the input ends inside the stream, IMG_ERR_MEMORY, or a
    // source's status. n may be any size; memory stays bounded.
    int32_t read(uint8_t* out, uint32_t n);

    // The stream's last block has been decoded (its output may be unread).
    bool ended() const;
    // The stream ended on a reserved block type (reserved_block_ends).
    bool ended_on_reserved_block() const { return reserved_seen_; }

private:
    struct Work;
    enum class State : uint8_t { kWrapper, kBlockHeader, kStored, kHuffman, kDone };

    bool next_input();
    bool need(unsigned n);
    uint32_t take(unsigned n);
    bool decode_symbol(const uint32_t* table, unsigned primary, uint32_t* entry);
    int32_t fail(int32_t status);
    void decode();
    bool block_header();
    bool dynamic_tables();
    bool copy_stored();
    bool huffman_fast();
    bool huffman_slow();

    Options options_;
    Work* work_ = nullptr;
    InflateSource* source_ = nullptr;
    const uint8_t* in_ = nullptr;
    const uint8_t* in_end_ = nullptr;
    uint64_t bb_ = 0;  // bit buffer, next bit lowest; no stray bits above bc_
    unsigned bc_ = 0;  // bits held in bb_
    bool input_ended_ = false;
    bool final_block_ = false;
    bool reserved_seen_ = false;
    State state_ = State::kWrapper;
    int32_t status_ = 0;        // first failure, sticky
    uint32_t stored_left_ = 0;  // bytes left in a stored block
    uint32_t wpos_ = 0;         // window: decoded up to here
    uint32_t rpos_ = 0;         // window: handed out up to here
    const uint32_t* lit_ = nullptr;
    const uint32_t* dist_ = nullptr;
};

// Inflates a whole zlib stream held in memory into out (at most out_size
// bytes). Returns the bytes written (out_size when the output is full before
// the stream ends), or a negative status as Inflater::read.
int32_t inflate_buffer(const uint8_t* in, size_t in_size, uint8_t* out, uint32_t out_size,
                       Inflater::Header header = Inflater::Header::kZlib);

}  // namespace tesslin
