// Allocator hooks, per-record scratch buffers and the binding switch.
#include "frame/record.hpp"

#include <cstdlib>

QMO_EXPORT void *qmo_seq_sys_malloc(void *, size_t size) { return std::malloc(size); }

QMO_EXPORT void qmo_seq_sys_free(void *, void *memory, size_t) { std::free(memory); }

QMO_SEQ_API qmo_seq_malloc_fn qmo_seq_malloc = qmo_seq_sys_malloc;
QMO_SEQ_API qmo_seq_free_fn qmo_seq_free = qmo_seq_sys_free;

QMO_EXPORT void qmo_seq_redefine_allocator(qmo_seq_malloc_fn malloc_hook, qmo_seq_free_fn free_hook) {
    qmo_seq_malloc = malloc_hook;
    qmo_seq_free = free_hook;
}

QMO_EXPORT void *qmo_seq_alloc_buffer(qmo_seq_iterator_t *it, uint64_t size) {
    it->buf_size = size;
    it->buf = qmo_seq_malloc(it, size);
    return it->buf;
}

QMO_EXPORT void qmo_seq_free_buffer(qmo_seq_iterator_t *it) {
    if (!it->buf) return;
    qmo_seq_free(it, it->buf, it->buf_size);
    it->buf = nullptr;
}

QMO_EXPORT int qmo_seq_enable_check_bindings(int on) {
    const int previous = qmo_seq_check_bindings;
    qmo_seq_check_bindings = on;
    return previous;
}
