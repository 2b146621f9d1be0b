// The feed's file: made beside the store with the store's access rights,
// mapped shared, recognised again by its device and inode.
#include "feed/feed_file.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <new>

#include "internal/qvbuildconfig.h"
#include "internal/qvfeed_hooks.h"

namespace qvfeed {

namespace {

// How long an opener waits for the creator of the file to finish it before
// it takes the creator for dead and makes the file anew.
constexpr int kCreatorWaitMillis = 2000;
// How often an open goes round removed, half-made or raced files.
constexpr int kOpenAttempts = 4;

std::size_t fileBytes(std::uint64_t capacity) {
    return kHeaderBytes + static_cast<std::size_t>(capacity) * sizeof(Entry);
}

void* mapShared(int fd, std::size_t bytes) {
    void* base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return base == MAP_FAILED ? nullptr : base;
}

// Makes the file exclusively (EEXIST when another process was first) with
// an empty ring whose first change will be number 1.
void* createFile(const std::string& path, std::uint64_t capacity, struct stat* info) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, QV_IPC_MODE);
    if (fd < 0) return nullptr;
    const std::size_t bytes = fileBytes(capacity);
    void* base = nullptr;
    // The mode as configured whatever the umask, like the store's. The pages
    // are allocated now: a write to a mapped page that a full file system
    // cannot give would kill the writer with SIGBUS.
    int error = fchmod(fd, QV_IPC_MODE) == 0 ? 0 : errno;
    if (error == 0) error = posix_fallocate(fd, 0, static_cast<off_t>(bytes));
    if (error == 0 && fstat(fd, info) == 0) base = mapShared(fd, bytes);
    if (error == 0 && base == nullptr) error = errno;
    close(fd);
    if (base == nullptr) {
        unlink(path.c_str());
        errno = error;
        return nullptr;
    }
    Header* header = new (base) Header();
    header->version = kVersion;
    header->capacity = capacity;
    header->published.store(1);
    header->reserved.store(1);
    header->magic.store(kMagic, std::memory_order_release);
    return base;
}

// Maps a file that another process made, once it has finished it: null with
// errno ENOENT when there is none, EAGAIN when it stayed unfinished (its
// creator died), ESTALE when it was retired, EINVAL when it is not a feed
// file of this layout.
void* attachFile(const std::string& path, struct stat* info) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return nullptr;
    void* base = nullptr;
    errno = EAGAIN;
    for (int waited = 0; base == nullptr && waited < kCreatorWaitMillis; ++waited) {
        if (fstat(fd, info) != 0) break;
        const std::size_t bytes = static_cast<std::size_t>(info->st_size);
        void* mapped = bytes >= kHeaderBytes ? mapShared(fd, bytes) : nullptr;
        const Header* header = static_cast<const Header*>(mapped);
        if (header != nullptr && header->magic.load(std::memory_order_acquire) == kMagic) {
            const bool fits = header->version == kVersion && header->capacity > 0 &&
                              fileBytes(header->capacity) == bytes;
            if (fits && header->retired.load() == 0) {
                base = mapped;
                break;
            }
            munmap(mapped, bytes);
            errno = fits ? ESTALE : EINVAL;
            break;
        }
        if (mapped != nullptr) munmap(mapped, bytes);
        usleep(1000);
    }
    const int error = errno;
    close(fd);
    errno = error;
    return base;
}

// Removes the file at the path when it is still the one that `seen` describes.
void removeIfStill(const std::string& path, const struct stat& seen) {
    struct stat now{};
    if (stat(path.c_str(), &now) == 0 && now.st_ino == seen.st_ino && now.st_dev == seen.st_dev)
        unlink(path.c_str());
}

}  // namespace

std::string feedPath() { return std::string(QV_REALTIME_DB_PATH) + "-feed"; }

Mapping* Mapping::open() {
    const std::string path = feedPath();
    const std::uint64_t asked = newFeedCapacity();
    const std::uint64_t newCapacity = asked != 0 ? asked : QV_FEED_CAPACITY;
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
        struct stat info{};
        void* base = attachFile(path, &info);
        if (base == nullptr && errno == ENOENT) {
            base = createFile(path, newCapacity, &info);
            if (base == nullptr && errno == EEXIST) continue;
        } else if (base == nullptr && (errno == EAGAIN || errno == ESTALE)) {
            // Left half made by a creator that died, or retired yet back at
            // the path (a file system mounted over the store's directory and
            // gone again): make it anew, unless another process already has.
            removeIfStill(path, info);
            continue;
        }
        if (base == nullptr) return nullptr;
        return new (std::nothrow) Mapping(base, static_cast<std::size_t>(info.st_size),
                                          info.st_dev, info.st_ino);
    }
    errno = EAGAIN;
    return nullptr;
}

Mapping::Mapping(void* base, std::size_t bytes, dev_t dev, ino_t ino)
    : header_(static_cast<Header*>(base)),
      ring_(reinterpret_cast<Entry*>(static_cast<char*>(base) + kHeaderBytes)),
      bytes_(bytes), dev_(dev), ino_(ino) {}

Mapping::~Mapping() { munmap(header_, bytes_); }

bool Mapping::replaced() const {
    struct stat info{};
    return stat(feedPath().c_str(), &info) != 0 || info.st_ino != ino_ || info.st_dev != dev_;
}

namespace {

void wakeAll(std::atomic<std::uint32_t>& word) {
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAKE, INT_MAX, nullptr,
            nullptr, 0);
}

}  // namespace

void Mapping::retire() {
    header_->retired.store(1);
    header_->wakeWord.fetch_add(2);
    wakeAll(header_->wakeWord);
}

// The readers' flag goes with the count in one step, so that a reader that
// set it after this publish fails its own exchange and looks again, and one
// that set it before is woken.
void Mapping::wakeReaders() {
    std::atomic<std::uint32_t>& word = header_->wakeWord;
    std::uint32_t seen = word.load(std::memory_order_relaxed);
    while (!word.compare_exchange_weak(seen, (seen + 2) & ~kSleepers)) {
    }
    if ((seen & kSleepers) != 0) wakeAll(word);
}

}  // namespace qvfeed
