// The backing store: one open source file shared by the clips made from it.
//
// Packets reference byte ranges of the file through BSHandleFile handles.
// Reads may come from any thread (a playback thread, say) while the owning
// thread closes a clip; when a clip goes, clip_gone() copies every byte
// range still referenced into an anonymous temporary file and lets go of
// the source, so that the host may overwrite or delete it.
#ifndef KEL_CORE_BSFILE_H
#define KEL_CORE_BSFILE_H

#include "kel.h"
#include "core/readahead.h"

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>

namespace KEL {

class BSHandleFile;

class KEL_API BSFile {
public:
    BSFile();
    // Adopts an open stream and its descriptor.
    explicit BSFile(FILE* f);
    ~BSFile();
    BSFile(const BSFile&) = delete;
    BSFile& operator=(const BSFile&) = delete;

    // Opens path for reading; true on success.
    bool open(const char* path);
    // Closes the stream if open and frees the handle table.
    void close();

    // A new handle (reference count 1) on [offset, offset + size), or null
    // when the store has no open stream.
    BSHandleFile* NewHandle(long long offset, int size);

    // Positioned read under the reader protocol; safe from any thread.
    // Returns the bytes read (0 when the store has no file).
    int get_bytes(void* dest, long long offset, int size);
    // The same read without the protocol, for the owning thread only.
    int get_bytes_private(void* dest, long long offset, int size);
    // Reads size bytes of a handle's range under the reader protocol. The
    // handle's offset is taken inside the protocol, so a relocation running
    // meanwhile cannot pair an old offset with the new file.
    int get_handle_bytes(const BSHandleFile* handle, void* dest, int size);

    // Called by a handle's destructor.
    void remove_handle(BSHandleFile* handle);

    // Called when a clip of this store closes; returns the result of the
    // final progress report.
    bool clip_gone(_kel_progress_ext_t* progress);

    // Called by the owning clip after clip_gone: from then on the store
    // belongs to the handles still on it and deletes itself when the last
    // one is released (at once when none is left). Only for stores made
    // with new.
    void release_owner();

    FILE* file = nullptr;
    int fd = -1;
    // Names the file under the store for the read-ahead blocks; replaced
    // whenever that file changes.
    unsigned long long source_id = ReadAhead::new_source_id();
    std::atomic<int> readers{0};
    std::atomic<int> relocating{0};
    int handle_count = 0;
    int handle_capacity = 0;
    BSHandleFile** handles = nullptr;

private:
    bool owner_released_ = false;
    // Readers that arrive while relocating is set wait here and are all
    // released together when the data has moved.
    std::mutex wakeup_mutex_;
    std::condition_variable wakeup_;
    unsigned long wakeup_generation_ = 0;

    // Registers a read in readers, waiting out any relocation in progress.
    void enter_reader();
    void leave_reader();
    void wait_for_wakeup();
    void wake_all();
    // Packs the live handles into a table of exactly handle_count slots
    // and renumbers them.
    void compact_table();
    // Copies every live handle's bytes into tmp, packed in table order.
    void relocate_into(FILE* tmp, _kel_progress_ext_t* progress);
};

} // namespace KEL

#endif
