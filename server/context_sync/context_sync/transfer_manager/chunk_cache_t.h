// chunk_cache_t keeps the "data" text of chunks the server has already encoded (the Base64 of the
// compressed bytes), so that a chunk sent to many clients is compressed once. Entries are keyed by
// the MD5 of the raw chunk bytes together with their size and the compression level: the key is
// the content itself, so a file that changes simply produces other keys and nothing ever has to be
// invalidated. The cache is bounded in bytes (the sum of the stored texts) and evicts the least
// recently used entries first; a capacity of 0 turns it off (nothing is stored, every chunk is
// encoded by its caller, exactly as without a cache).
//
// encoded() also folds simultaneous misses together: when several senders ask for the same chunk
// at once (a crowd of clients downloading the same new file keeps its senders nearly in step), one
// of them encodes and the others wait for its result instead of compressing the same bytes again.
//
// Thread: every member function may be called from any thread; one QMutex guards the table. The
// process-wide instance (shared()) is used by all file senders, up to ten sender threads at once.
// Owns: the stored texts, as implicitly shared QByteArray values that are never modified after
// they are stored; a hit hands out a shallow copy (a reference count, no byte is copied). Emits
// nothing.
#pragma once

#include "context_sync/context_sync_export.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QHash>
#include <QMutex>
#include <QSet>

#include <condition_variable>
#include <functional>
#include <list>

namespace context_sync_engine {

class CONTEXT_SYNC_EXPORT chunk_cache_t {
public:
    // Capacity of the process-wide cache until the host sets another: 32 MiB.
    static constexpr qint64 DEFAULT_CAPACITY = qint64(32) * 1024 * 1024;

    explicit chunk_cache_t(qint64 capacity_bytes = DEFAULT_CAPACITY);
    ~chunk_cache_t();

    chunk_cache_t(const chunk_cache_t&) = delete;
    chunk_cache_t& operator=(const chunk_cache_t&) = delete;

    // The instance shared by all file senders of the process.
    static chunk_cache_t& shared();

    // The key of a chunk: `md5` is the binary (16-byte) MD5 of the raw chunk bytes, `raw_size`
    // their number, `level` the compression level the text is made with.
    static QByteArray make_key(QByteArrayView md5, qint64 raw_size, int level);

    // Bound of the stored texts, in bytes; 0 turns the cache off. Lowering it evicts at once,
    // least recently used first; 0 empties it. Negative values are taken as 0.
    void set_capacity(qint64 capacity_bytes);
    qint64 capacity() const;

    // The text stored under `key`, or a null QByteArray. A hit makes the entry the most recently
    // used one.
    QByteArray find(const QByteArray& key);
    // Stores `text` under `key` as the most recently used entry (replacing an entry of the same
    // key) and evicts least recently used entries until the bound holds. A text larger than the
    // capacity, or any text while the cache is off, is not stored.
    void insert(const QByteArray& key, const QByteArray& text);

    // The text for `key`: from the cache when present, else made by `encode` (called without the
    // lock held) and stored. While one caller encodes a key, other callers of the same key wait
    // for its result. With the cache off, `encode` is simply called.
    QByteArray encoded(const QByteArray& key, const std::function<QByteArray()>& encode);

    // Sum of the sizes of the stored texts, and their number.
    qint64 size_bytes() const;
    int count() const;
    // Hits and misses counted by find() and encoded() since construction or the last clear().
    qint64 hits() const;
    qint64 misses() const;
    // Drops every entry and zeroes the counters; the capacity stays.
    void clear();

private:
    struct entry_t {
        QByteArray key;
        QByteArray text;
    };
    using list_t = std::list<entry_t>;

    // With `lock` held.
    QByteArray find_locked(const QByteArray& key);
    void insert_locked(const QByteArray& key, const QByteArray& text);
    void evict_locked(qint64 bound);

    mutable QMutex lock;
    // Waited on with `lock` by callers of encoded() whose key another caller is encoding. A
    // condition_variable_any rather than a QWaitCondition: it unlocks and relocks the QMutex
    // through its inline (and so sanitizer-visible) lock paths.
    std::condition_variable_any encoded_elsewhere;
    qint64 capacity_bytes = 0;
    qint64 stored_bytes = 0;
    qint64 hit_count = 0;
    qint64 miss_count = 0;
    // Most recently used first.
    list_t entries;
    QHash<QByteArray, list_t::iterator> index;
    // Keys being encoded right now by some caller of encoded().
    QSet<QByteArray> in_progress;
};

} // namespace context_sync_engine
