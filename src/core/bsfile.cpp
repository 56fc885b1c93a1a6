#include "core/bsfile.h"

#include "core/bshandlefile.h"
#include "core/progress.h"
#include "core/readahead.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace KEL {

namespace {

// Slots added to the handle table each time it fills up.
constexpr int kTableStep = 8192;

// Pause between two looks at the reader count while a relocation waits for
// in-flight reads to drain.
constexpr useconds_t kDrainPollMicros = 1000;


// Appends size zero bytes to out; used when a range's bytes cannot be
// buffered, so that the offsets of the ranges after it stay packed.
void write_zeros(FILE* out, long long size)
{
    static constexpr std::array<unsigned char, 4096> zeros{};
    while (size > 0) {
        const size_t chunk = size < static_cast<long long>(zeros.size())
                                 ? static_cast<size_t>(size)
                                 : zeros.size();
        if (std::fwrite(zeros.data(), 1, chunk, out) != chunk)
            return;
        size -= static_cast<long long>(chunk);
    }
}

void set_close_on_exec(int fd)
{
    if (fd == -1)
        return;
    const int flags = ::fcntl(fd, F_GETFD);
    if (flags != -1)
        ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
}

} // namespace

BSFile::BSFile() = default;

BSFile::BSFile(FILE* f) : file(f), fd(f != nullptr ? ::fileno(f) : -1) {}

BSFile::~BSFile()
{
    close();
}

bool BSFile::open(const char* path)
{
    // A store reads one source; replacing an open stream would strand the
    // handles made on it.
    if (path == nullptr || file != nullptr)
        return false;
    FILE* f = std::fopen(path, "re");
    if (f == nullptr)
        return false;
    file = f;
    fd = ::fileno(f);
    source_id = ReadAhead::new_source_id();
    return true;
}

void BSFile::close()
{
    if (file != nullptr)
        std::fclose(file);
    file = nullptr;
    fd = -1;
    source_id = ReadAhead::new_source_id();
    std::free(handles);
    handles = nullptr;
    handle_count = 0;
    handle_capacity = 0;
}

BSHandleFile* BSFile::NewHandle(long long offset, int size)
{
    if (file == nullptr)
        return nullptr;

    // Make room first, so that a failed allocation leaves no handle behind.
    if (handles == nullptr || handle_count >= handle_capacity) {
        const int old_capacity = handles != nullptr ? handle_capacity : 0;
        if (old_capacity > INT_MAX - kTableStep)
            return nullptr;
        const int capacity = old_capacity + kTableStep;
        auto table = static_cast<BSHandleFile**>(
            std::calloc(static_cast<size_t>(capacity), sizeof(BSHandleFile*)));
        if (table == nullptr)
            return nullptr;
        if (handles != nullptr) {
            const int keep = handle_count < old_capacity ? handle_count : old_capacity;
            std::memcpy(table, handles, static_cast<size_t>(keep) * sizeof(BSHandleFile*));
            std::free(handles);
        }
        handles = table;
        handle_capacity = capacity;
    }

    auto handle = new (std::nothrow) BSHandleFile(this, offset, size, handle_count);
    if (handle == nullptr)
        return nullptr;
    // The index comes from the live count, not from a search for a free
    // slot: after a removal this may overwrite a handle that is still alive,
    // which then drops out of the table until the next clip_gone.
    handles[handle_count] = handle;
    ++handle_count;
    return handle;
}

void BSFile::remove_handle(BSHandleFile* handle)
{
    if (handle == nullptr || handles == nullptr)
        return;
    const int index = handle->index;
    if (index < 0 || index >= handle_capacity || handles[index] != handle)
        return;
    handles[index] = nullptr;
    if (--handle_count == 0) {
        close();
        if (owner_released_)
            delete this;
    }
}

void BSFile::release_owner()
{
    owner_released_ = true;
    if (handle_count == 0)
        delete this;
}

void BSFile::wait_for_wakeup()
{
    std::unique_lock<std::mutex> lock(wakeup_mutex_);
    // The relocation clears the flag before it takes the lock to advance
    // the generation, so a flag seen set here guarantees a later wake.
    if (relocating.load(std::memory_order_seq_cst) == 0)
        return;
    const unsigned long seen = wakeup_generation_;
    wakeup_.wait(lock, [&] { return wakeup_generation_ != seen; });
}

void BSFile::wake_all()
{
    {
        std::lock_guard<std::mutex> lock(wakeup_mutex_);
        ++wakeup_generation_;
    }
    wakeup_.notify_all();
}

void BSFile::enter_reader()
{
    readers.fetch_add(1, std::memory_order_seq_cst);
    // Checked again after every wake: the owning thread may already have
    // started the next relocation.
    while (relocating.load(std::memory_order_seq_cst) != 0) {
        readers.fetch_sub(1, std::memory_order_seq_cst);
        wait_for_wakeup();
        readers.fetch_add(1, std::memory_order_seq_cst);
    }
}

void BSFile::leave_reader()
{
    readers.fetch_sub(1, std::memory_order_seq_cst);
}

int BSFile::get_bytes(void* dest, long long offset, int size)
{
    if (size <= 0)
        return 0;
    enter_reader();
    const int got = ReadAhead::read(fd, source_id, dest, offset, size);
    leave_reader();
    return got;
}

int BSFile::get_bytes_private(void* dest, long long offset, int size)
{
    return ReadAhead::read_direct(fd, dest, offset, size);
}

int BSFile::get_handle_bytes(const BSHandleFile* handle, void* dest, int size)
{
    if (handle == nullptr || size <= 0)
        return 0;
    enter_reader();
    const int got = ReadAhead::read(fd, source_id, dest, handle->offset, size);
    leave_reader();
    return got;
}

void BSFile::compact_table()
{
    if (handle_count <= 0 || handles == nullptr)
        return;
    auto table = static_cast<BSHandleFile**>(
        std::calloc(static_cast<size_t>(handle_count), sizeof(BSHandleFile*)));
    if (table == nullptr)
        return; // the copy walks the old table instead, skipping free slots
    int next = 0;
    for (int slot = 0; slot < handle_capacity && next < handle_count; ++slot) {
        BSHandleFile* handle = handles[slot];
        if (handle == nullptr)
            continue;
        handle->index = next;
        table[next++] = handle;
    }
    std::free(handles);
    handles = table;
    handle_capacity = handle_count;
}

void BSFile::relocate_into(FILE* tmp, _kel_progress_ext_t* progress)
{
    ProgressThrottle throttle(progress);
    const float step = 100.0f / static_cast<float>(handle_count);
    unsigned char* buffer = nullptr;
    int buffer_size = 0;
    long long total = 0;
    int i = 0;
    for (int slot = 0; slot < handle_capacity; ++slot) {
        BSHandleFile* handle = handles[slot];
        if (handle == nullptr)
            continue;
        const int size = handle->size > 0 ? handle->size : 0;
        if (size > buffer_size) {
            auto grown = static_cast<unsigned char*>(std::realloc(buffer, static_cast<size_t>(size)));
            if (grown != nullptr) {
                buffer = grown;
                buffer_size = size;
            }
        }
        if (size > 0 && size <= buffer_size) {
            // Bytes the old file cannot supply stay zero.
            std::memset(buffer, 0, static_cast<size_t>(size));
            ReadAhead::read_direct(fd, buffer, handle->offset, size);
            std::fwrite(buffer, 1, static_cast<size_t>(size), tmp);
        } else if (size > 0) {
            write_zeros(tmp, size);
        }
        handle->offset = total;
        total += size;
        // The copy cannot be cancelled: the source is going away.
        (void)throttle.step(step * static_cast<float>(i));
        ++i;
    }
    std::free(buffer);
}

bool BSFile::clip_gone(_kel_progress_ext_t* progress)
{
    if (handle_count == 0) {
        close();
        return report_progress(progress, 100.0f);
    }

    compact_table();
    FILE* tmp = std::tmpfile();

    // Block new readers, then wait for the reads already running. The flag
    // is set with a sequentially consistent exchange, a full barrier: a
    // reader either sees it set or is already counted in readers.
    relocating.exchange(1, std::memory_order_seq_cst);
    while (readers.load(std::memory_order_seq_cst) != 0)
        ::usleep(kDrainPollMicros);

    int new_fd = -1;
    if (tmp != nullptr) {
        relocate_into(tmp, progress);
        std::fflush(tmp);
        new_fd = ::fileno(tmp);
        set_close_on_exec(new_fd);
    }
    if (file != nullptr)
        std::fclose(file);
    file = tmp;
    fd = new_fd;
    source_id = ReadAhead::new_source_id();

    relocating.exchange(0, std::memory_order_seq_cst);
    wake_all();

    return report_progress(progress, 100.0f);
}

} // namespace KEL
