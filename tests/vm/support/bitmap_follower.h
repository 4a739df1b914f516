// A writer that follows kcowd: it watches a snap's COW bitmap file and, as
// soon as a chunk shows in it, writes one more 4096-byte block into that
// chunk through the filter node. That is the second write into a chunk
// whose preservation is under way, the write that must not reach the
// partition before the chunk's bit is durable.
#ifndef TRAK_TESTS_VM_SUPPORT_BITMAP_FOLLOWER_H_
#define TRAK_TESTS_VM_SUPPORT_BITMAP_FOLLOWER_H_

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace trak::vmtest {

class BitmapFollower {
  public:
    // Byte that every block the follower writes is filled with.
    static constexpr std::uint8_t kFill = 0x5A;

    // Watches `cow_bitmap` and writes to `filter_device`, whose chunks
    // have `chunk_size` bytes; the block within each chunk comes from
    // `seed`.
    BitmapFollower(std::string cow_bitmap, std::string filter_device, std::uint32_t chunk_size,
                   std::uint32_t seed);
    // Stops it if it still runs.
    ~BitmapFollower();
    BitmapFollower(const BitmapFollower&) = delete;
    BitmapFollower& operator=(const BitmapFollower&) = delete;

    void Start();
    // Stops it and waits for it; returns "" or the first failure.
    std::string Stop();

    // Blocks written so far.
    [[nodiscard]] int writes() const { return writes_.load(); }

  private:
    void Run();

    std::string cow_bitmap_;
    std::string filter_device_;
    std::uint32_t chunk_size_;
    std::uint32_t seed_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<int> writes_{0};
    std::string failure_;  // written by the thread until joined
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_BITMAP_FOLLOWER_H_
