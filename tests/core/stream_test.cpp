// Byte streams over files, memory blocks and hooks; the scrambling key; fault
// containment; the buffered reader codecs use. (The buffered writer is
// checked through the writers: files read back by peers, short writes in
// the save and append-failure tests.)
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "core/io.h"
#include "core/stream.h"
#include "platform/platform.h"
#include "test_util.h"

using namespace tesslin;

namespace {

// Leaves hooks and key as the library starts, whatever a test did.
class Streams : public ::testing::Test {
protected:
    void TearDown() override {
        IMGLOW_set_fileio(nullptr, nullptr, nullptr);
        IMG_set_encrypt(0, 0);
    }
};

std::vector<uint8_t> pattern(size_t n) {
    std::vector<uint8_t> v(n);
    std::iota(v.begin(), v.end(), uint8_t(1));
    return v;
}

// A memory stream over a library block of `size` bytes, released with the
// object.
struct MemStream {
    uint8_t* block;
    int32_t s;
    explicit MemStream(uint32_t size, void* memory = nullptr)
        : block(static_cast<uint8_t*>(memory ? memory : tesslin_block_alloc(size))), s(stream::mem_create(block)) {}
    ~MemStream() {
        stream::mem_release(s);
        tesslin_block_free(block);
    }
};

int32_t g_hook_reads = 0;
int32_t counting_read(int32_t, void* buffer, uint32_t count) {
    ++g_hook_reads;
    std::memset(buffer, 0x42, count);
    return static_cast<int32_t>(count);
}

__attribute__((no_sanitize("undefined"))) int32_t faulting_read(int32_t, void*, uint32_t) {
    volatile int* nothing = nullptr;
    return *nothing;
}

int32_t faulting_write(int32_t, const void*, uint32_t) {
    raise(SIGBUS);
    return 0;
}

void marker_handler(int) {}

}  // namespace

// With the key on (without it every memory save writes the bytes as given).
TEST_F(Streams, MemoryWriteStopsAtTheEndOfTheBlock) {
    IMG_set_encrypt(1, 0x01020304);
    const MemStream m(140);
    ASSERT_LT(m.s, 0) << "memory streams never look like descriptors";
    ASSERT_EQ(stream::seek(m.s, 100, 0), 100);
    std::vector<uint8_t> data = pattern(100), copy = data;
    EXPECT_EQ(stream::write(m.s, data.data(), 100), 40);
    EXPECT_EQ(data, copy) << "the caller's bytes are unchanged";
    EXPECT_EQ(stream::seek(m.s, 0, 1), 140);
    EXPECT_EQ(stream::length(m.s), 140);
    EXPECT_EQ(m.block[100], 1 ^ 10);
    // Reading back through the stream undoes the key.
    std::vector<uint8_t> back(40);
    stream::seek(m.s, 100, 0);
    EXPECT_EQ(stream::read(m.s, back.data(), 100), 40);
    EXPECT_TRUE(std::equal(back.begin(), back.end(), data.begin()));
}

TEST_F(Streams, MemoryReadsEndAtTheSizeAndSeeksAreNotClamped) {
    auto* block = static_cast<uint8_t*>(tesslin_block_alloc(10));
    std::memset(block, 7, 10);
    int32_t s = stream::mem_create(block);
    uint8_t buf[32];
    EXPECT_EQ(stream::read(s, buf, 32), 10);
    EXPECT_EQ(stream::read(s, buf, 32), 0);
    EXPECT_EQ(stream::seek(s, 10, 2), 20);
    EXPECT_EQ(stream::read(s, buf, 1), 0);
    EXPECT_EQ(stream::seek(s, -15, 1), 5);
    EXPECT_EQ(stream::read(s, buf, 32), 5);
    EXPECT_EQ(stream::capacity(s), 10);
    stream::mem_release(s);
    EXPECT_FALSE(stream::is_memory(s)) << "a released handle is gone";
    EXPECT_EQ(stream::read(s, buf, 1), 0);
    tesslin_block_free(block);
    // Handle 0 is nothing.
    EXPECT_EQ(stream::read(0, buf, 4), 0);
    EXPECT_EQ(stream::write(0, buf, 4), 0);
    EXPECT_EQ(stream::seek(0, 5, 0), 0);
    EXPECT_EQ(stream::length(0), 0);
}

// A file stream with the scrambling key on: the bytes come back through the
// stream as written and scrambled without it; length, position and
// truncation (a failed append undone).
TEST_F(Streams, FilesScrambledLengthAndTruncation) {
    const test::Scratch path("key");
    IMG_set_encrypt(1, 0x30);
    int32_t fd = platform::file_open(path.c_str(), 2);
    ASSERT_GT(fd, 0);
    std::vector<uint8_t> data = pattern(20000), copy = data;
    ASSERT_EQ(stream::write(fd, data.data(), 20000), 20000);
    EXPECT_EQ(data, copy);
    ASSERT_EQ(stream::seek(fd, 200, 0), 200);
    EXPECT_EQ(stream::length(fd), 20000);
    EXPECT_EQ(stream::seek(fd, 0, 1), 200);
    EXPECT_EQ(stream::capacity(fd), 20000);
    std::vector<uint8_t> back(20000);
    stream::seek(fd, 0, 0);
    ASSERT_EQ(stream::read(fd, back.data(), 20000), 20000);
    EXPECT_EQ(back, data);
    IMG_set_encrypt(0, 0x30);
    stream::seek(fd, 0, 0);
    ASSERT_EQ(stream::read(fd, back.data(), 1), 1);
    EXPECT_EQ(back[0], 1 ^ 0x30);
    EXPECT_EQ(stream::truncate(fd, 300), 0);
    EXPECT_EQ(stream::length(fd), 300);
    EXPECT_EQ(stream::seek(fd, 0, 1), 300);
    platform::file_close(fd);
    EXPECT_GE(platform::file_open(path.c_str(), 3), 0);
    EXPECT_EQ(platform::file_delete(path.c_str()), 0);
    EXPECT_EQ(platform::file_open(path.c_str(), 3), -1);
    EXPECT_EQ(platform::file_open(path.c_str(), 0), -1);
}

TEST_F(Streams, KeyByteIsTheSumOfTheKeyBytes) {
    auto key_byte = [](int32_t key) {
        IMG_set_encrypt(1, key);
        const uint8_t zero = 0;
        const MemStream m(1);
        stream::write(m.s, &zero, 1);
        return m.block[0];
    };
    EXPECT_EQ(key_byte(0x01020304), 10);
    EXPECT_EQ(key_byte(0x000000FF), 0xFF);
    EXPECT_EQ(key_byte(0x00000080 | 0x8000), 0x9D) << "sum 256";
    EXPECT_EQ(key_byte(static_cast<int32_t>(0x80808080)), 0x9D) << "sum 512";
    EXPECT_EQ(key_byte(0x00FFFF02), 0x9D) << "sum 512 again";
    EXPECT_EQ(key_byte(0), 0x9D);
}

TEST_F(Streams, HooksTakeOnlyTheOperationsTheyAreFor) {
    const MemStream m(16);
    IMGLOW_set_fileio(counting_read, nullptr, nullptr);
    IMG_set_encrypt(1, 5);
    g_hook_reads = 0;
    uint8_t buf[8];
    EXPECT_EQ(stream::read(12345, buf, 8), 8);
    EXPECT_EQ(buf[0], 0x42) << "no key on hooked reads";
    EXPECT_EQ(g_hook_reads, 1);
    EXPECT_EQ(stream::seek(m.s, 3, 0), 3) << "seeks still reach the memory stream";
    EXPECT_EQ(stream::write(m.s, buf, 1), 1);
    EXPECT_EQ(m.block[3], 0x42 ^ 5);
}

// Faults in hooks come back as the call's status, and the guard puts back
// the signal handler it found.
TEST_F(Streams, FaultsInHooksBecomeStatus38) {
    struct sigaction mine = {}, old_segv = {}, now = {};
    mine.sa_handler = marker_handler;
    sigemptyset(&mine.sa_mask);
    ASSERT_EQ(sigaction(SIGSEGV, &mine, &old_segv), 0);
    IMGLOW_set_fileio(faulting_read, faulting_write, nullptr);
    uint8_t buf[4];
    EXPECT_EQ(stream::read(1, buf, 4), IMG_ERR_STREAM_FAULT);
    EXPECT_EQ(stream::write(1, buf, 4), IMG_ERR_STREAM_FAULT);
    ASSERT_EQ(sigaction(SIGSEGV, nullptr, &now), 0);
    EXPECT_EQ(now.sa_handler, marker_handler);
    sigaction(SIGSEGV, &old_segv, nullptr);
    // Concurrent faults on several threads each come back to their own call.
    std::vector<std::thread> threads;
    std::atomic<int> right{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            uint8_t b[4];
            for (int i = 0; i < 50; ++i)
                if (stream::read(1, b, 4) == IMG_ERR_STREAM_FAULT) right++;
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(right.load(), 200);
}

TEST_F(Streams, ForeignMemoryThatEndsEarlyFaultsCleanly) {
    // One readable page followed by an inaccessible one.
    long page = sysconf(_SC_PAGESIZE);
    auto* map = static_cast<uint8_t*>(
        mmap(nullptr, size_t(page) * 2, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(map, MAP_FAILED);
    ASSERT_EQ(mprotect(map + page, size_t(page), PROT_NONE), 0);
    std::memset(map, 3, size_t(page));
    int32_t s = stream::mem_create(map);
    EXPECT_EQ(stream::capacity(s), int64_t(stream::kForeignSize));
    std::vector<uint8_t> buf(size_t(page) * 2);
    EXPECT_EQ(stream::read(s, buf.data(), uint32_t(page) / 2), page / 2);
    EXPECT_EQ(stream::read(s, buf.data(), uint32_t(page)), IMG_ERR_STREAM_FAULT);
    stream::seek(s, 0, 0);
    EXPECT_EQ(stream::write(s, buf.data(), uint32_t(page) + 1), IMG_ERR_STREAM_FAULT);
    stream::mem_release(s);
    munmap(map, size_t(page) * 2);
}

TEST_F(Streams, ReaderCountsWhatItHasAndReportsShortReads) {
    std::vector<uint8_t> data = pattern(70000);
    const MemStream m(70000, test::to_block(data));
    {
        StreamReader in(m.s);
        EXPECT_EQ(in.u8(), 1);
        EXPECT_EQ(in.le16(), 0x0302);
        EXPECT_EQ(in.be32(), 0x04050607u);
        EXPECT_EQ(in.tell(), 7u);
        std::vector<uint8_t> big(40000);
        ASSERT_TRUE(in.read(big.data(), 40000));
        EXPECT_TRUE(std::equal(big.begin(), big.end(), data.begin() + 7));
        ASSERT_TRUE(in.seek(69990));
        uint8_t tail[20];
        EXPECT_FALSE(in.read(tail, 20));
        EXPECT_EQ(in.status(), IMG_ERR_READ);
        EXPECT_EQ(tail[9], data[69999]);
    }
    {
        stream::seek(m.s, 100, 0);
        StreamReader in(m.s);  // starts where the stream stands
        EXPECT_EQ(in.tell(), 100u);
        EXPECT_EQ(in.u8(), data[100]);
        ASSERT_TRUE(in.seek(50));
        EXPECT_EQ(in.u8(), data[50]);
        ASSERT_TRUE(in.skip(69948));
        EXPECT_EQ(in.tell(), 69999u);
        EXPECT_EQ(in.byte_or_eof(), data[69999]);
        EXPECT_EQ(in.byte_or_eof(), -1);
        EXPECT_TRUE(in.ok());
        EXPECT_EQ(in.le32(), 0u);
        EXPECT_EQ(in.status(), IMG_ERR_READ);
    }
}

TEST(Platform, TemporaryFilesAreMadeWithThePrefix) {
    char name[260];
    int32_t fd = platform::temp_file(name, 0);
    ASSERT_GT(fd, 0);
    std::string n(name);
    EXPECT_NE(n.find("/img"), std::string::npos);
    platform::file_close(fd);
    int32_t again = platform::temp_file(name, 1);
    EXPECT_GT(again, 0);
    platform::file_close(again);
    platform::file_delete(name);
    EXPECT_EQ(platform::temp_file(name, 7), -1);
}

TEST(Platform, BlocksKnowTheirSizeAndForeignAddressesAreLeftAlone) {
    void* a = tesslin_block_alloc(123);
    EXPECT_EQ(tesslin_block_size(a), 123);
    int on_stack = 0;
    EXPECT_EQ(tesslin_block_size(&on_stack), -1);
    tesslin_block_free(&on_stack);  // ignored
    void* b = tesslin_block_realloc(a, 100000);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(tesslin_block_size(b), 100000);
    EXPECT_EQ(tesslin_block_realloc(&on_stack, 10), nullptr);
    tesslin_block_free(b);
    EXPECT_EQ(tesslin_block_size(b), -1);
}
