/*
 * rbuffer2: a two-lane byte ring buffer. Every write puts the same number
 * of bytes into both lanes. One producer writes without any lock; one
 * consumer reads under a try-lock that only a flush holds, so neither side
 * ever blocks and both are safe on a real-time thread.
 *
 * Sizes are byte counts; a negative size, or one whose lanes would not fit
 * an int, is refused like a failed allocation.
 */
#ifndef KEL_RBUFFER_RBUFFER2_H
#define KEL_RBUFFER_RBUFFER2_H

#include "kel.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct rbuffer2 rbuffer2;

/* size: bytes per lane (0: no storage). lock_memory: mlock the storage.
 * Null when the record or the storage cannot be allocated. */
KEL_API rbuffer2* rbuffer2_create(int size, int lock_memory);
KEL_API void rbuffer2_destroy(rbuffer2* rb);
/* Drops the storage and all data and allocates size bytes per lane.
 * 0, or -1 when the allocation fails (the buffer then has no storage). */
KEL_API int rbuffer2_set_size(rbuffer2* rb, int size);
/* Writes up to bytes bytes of a into lane A and of b into lane B. */
KEL_API int rbuffer2_write(rbuffer2* rb, const void* a, const void* b, int bytes);
/* Reads up to bytes bytes; a null destination discards that lane's data.
 * Returns 0 at once while a flush holds the read lock. */
KEL_API int rbuffer2_read(rbuffer2* rb, void* a, void* b, int bytes);
/* Drop unread data; waits for a read in progress. */
KEL_API void rbuffer2_flush(rbuffer2* rb);
KEL_API void rbuffer2_flush_w(rbuffer2* rb);
/* Reset without any lock; only while neither side is active. */
KEL_API void rbuffer2_flush_sync(rbuffer2* rb);
KEL_API int rbuffer2_free_space(rbuffer2* rb);
KEL_API int rbuffer2_used_space(rbuffer2* rb);
KEL_API int rbuffer2_size(rbuffer2* rb);

#ifdef __cplusplus
}

namespace KEL {

/* The two halves of a flush's locking, for code inside the library that
 * must keep the reader out for longer than a flush does: the first waits
 * (20-microsecond sleeps) until the read lock is held, the second lets it
 * go. While held, rbuffer2_read returns 0 at once. */
void rbuffer2_lock_reader(rbuffer2* rb);
void rbuffer2_unlock_reader(rbuffer2* rb);
/* The current read and write positions (for diagnostics). */
void rbuffer2_positions(rbuffer2* rb, int* read_pos, int* write_pos);

} // namespace KEL
#endif

#endif
