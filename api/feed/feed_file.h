// The feed's file: a header and a ring of changes, mapped shared by every
// process that writes or follows the feed. Internal; not installed.
//
// Writers hold the store lock. A save writes its entries after `published`
// (first raising `reserved`, the highest sequence number whose slot may be
// in use, so that a reader can tell that a slot it copied was being
// overwritten), then publishes them all with one store of `published`.
// `writing` is set from before a save's SQLite commit until after its
// publish, so that the next writer can tell that one died in between.
// `wakeWord` is the futex that readers sleep on: bit 0 says that somebody
// sleeps, the other bits count publishes.
#ifndef QV_FEED_FEED_FILE_H
#define QV_FEED_FEED_FILE_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "qvfeed.h"

namespace qvfeed {

// The public record's layout, with the padding after `character` used for
// the mark of a save's last change.
struct Entry {
    std::uint64_t seq;
    std::uint32_t hashID;
    std::int32_t kind;
    double value;
    std::int32_t character;
    std::uint32_t lastOfGroup;
    double timestamp;
};
static_assert(sizeof(Entry) == sizeof(QvChange), "an entry is a change's size");

struct Header {
    std::atomic<std::uint32_t> magic;  // set last by the creator
    std::uint32_t version;
    std::uint64_t capacity;
    alignas(64) std::atomic<std::uint64_t> published;  // entries below it are visible
    std::atomic<std::uint64_t> reserved;
    std::atomic<std::uint32_t> writing;
    std::atomic<std::uint32_t> retired;  // the file was removed or replaced: reopen
    alignas(64) std::atomic<std::uint32_t> wakeWord;
};

constexpr std::uint32_t kMagic = 0x51564644;  // "QVFD"
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kHeaderBytes = 4096;
static_assert(sizeof(Header) <= kHeaderBytes, "the header fits its page");
constexpr std::uint32_t kSleepers = 1;

// The feed file's path: beside the store.
std::string feedPath();

// The ring size of the files this process creates; 0: the built-in one.
std::uint64_t newFeedCapacity();

// One process's mapping of the feed file.
class Mapping {
public:
    // Opens the file, creating it when it is missing (see
    // setNewFeedCapacity): null with errno set when that fails.
    static Mapping* open();
    ~Mapping();
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    Header& header() const { return *header_; }
    Entry& slot(std::uint64_t seq) const { return ring_[seq % header_->capacity]; }
    // The path no longer names this file: it was removed, or made anew.
    bool replaced() const;
    // Tells every reader to reopen, and wakes those that sleep.
    void retire();
    // Counts a publish and wakes the readers that sleep, if any.
    void wakeReaders();

private:
    Mapping(void* base, std::size_t bytes, dev_t dev, ino_t ino);
    Header* header_;
    Entry* ring_;
    std::size_t bytes_;
    dev_t dev_;
    ino_t ino_;
};

}  // namespace qvfeed

#endif  // QV_FEED_FEED_FILE_H
