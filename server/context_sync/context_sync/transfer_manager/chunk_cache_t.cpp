#include "context_sync/context_sync/transfer_manager/chunk_cache_t.h"

#include <QMutexLocker>
#include <QtEndian>

namespace context_sync_engine {

chunk_cache_t::chunk_cache_t(qint64 capacity)
    : capacity_bytes(capacity > 0 ? capacity : 0)
{
}

chunk_cache_t::~chunk_cache_t() = default;

chunk_cache_t& chunk_cache_t::shared()
{
    static chunk_cache_t instance;
    return instance;
}

QByteArray chunk_cache_t::make_key(QByteArrayView md5, qint64 raw_size, int level)
{
    QByteArray key;
    key.reserve(md5.size() + 9);
    key.append(md5.data(), md5.size());
    char size_bytes[8];
    qToBigEndian<qint64>(raw_size, size_bytes);
    key.append(size_bytes, sizeof size_bytes);
    key.append(char(level));
    return key;
}

void chunk_cache_t::set_capacity(qint64 capacity)
{
    QMutexLocker locker(&lock);
    capacity_bytes = capacity > 0 ? capacity : 0;
    evict_locked(capacity_bytes);
}

qint64 chunk_cache_t::capacity() const
{
    QMutexLocker locker(&lock);
    return capacity_bytes;
}

QByteArray chunk_cache_t::find(const QByteArray& key)
{
    QMutexLocker locker(&lock);
    QByteArray text = find_locked(key);
    if (text.isNull())
        ++miss_count;
    else
        ++hit_count;
    return text;
}

void chunk_cache_t::insert(const QByteArray& key, const QByteArray& text)
{
    QMutexLocker locker(&lock);
    insert_locked(key, text);
}

QByteArray chunk_cache_t::encoded(const QByteArray& key, const std::function<QByteArray()>& encode)
{
    QMutexLocker locker(&lock);
    for (;;) {
        if (capacity_bytes == 0) {
            locker.unlock();
            return encode();
        }
        QByteArray text = find_locked(key);
        if (!text.isNull()) {
            ++hit_count;
            return text;
        }
        if (!in_progress.contains(key))
            break;
        // Another sender is encoding these very bytes: its result will be here shortly. When it
        // could not be stored (larger than the capacity), the loop ends in encoding it here.
        encoded_elsewhere.wait(lock);
    }
    ++miss_count;
    in_progress.insert(key);
    locker.unlock();

    // Whatever happens in encode(), the waiters must be released.
    struct release_t {
        chunk_cache_t* cache;
        const QByteArray& key;
        QMutexLocker<QMutex>& locker;
        ~release_t()
        {
            if (!locker.isLocked())
                locker.relock();
            cache->in_progress.remove(key);
            cache->encoded_elsewhere.notify_all();
        }
    } release { this, key, locker };

    const QByteArray text = encode();
    locker.relock();
    insert_locked(key, text);
    return text;
}

qint64 chunk_cache_t::size_bytes() const
{
    QMutexLocker locker(&lock);
    return stored_bytes;
}

int chunk_cache_t::count() const
{
    QMutexLocker locker(&lock);
    return int(index.size());
}

qint64 chunk_cache_t::hits() const
{
    QMutexLocker locker(&lock);
    return hit_count;
}

qint64 chunk_cache_t::misses() const
{
    QMutexLocker locker(&lock);
    return miss_count;
}

void chunk_cache_t::clear()
{
    QMutexLocker locker(&lock);
    evict_locked(0);
    hit_count = 0;
    miss_count = 0;
}

QByteArray chunk_cache_t::find_locked(const QByteArray& key)
{
    const auto found = index.constFind(key);
    if (found == index.constEnd())
        return {};
    // Most recently used first: move the entry to the front without copying it.
    entries.splice(entries.begin(), entries, found.value());
    return entries.front().text;
}

void chunk_cache_t::insert_locked(const QByteArray& key, const QByteArray& text)
{
    if (text.size() > capacity_bytes)
        return;
    const auto found = index.find(key);
    if (found != index.end()) {
        stored_bytes -= found.value()->text.size();
        entries.erase(found.value());
        index.erase(found);
    }
    // Room first, so that the bound holds at every moment.
    evict_locked(capacity_bytes - text.size());
    entries.push_front(entry_t { key, text });
    index.insert(key, entries.begin());
    stored_bytes += text.size();
}

void chunk_cache_t::evict_locked(qint64 bound)
{
    while (stored_bytes > bound && !entries.empty()) {
        const entry_t& oldest = entries.back();
        stored_bytes -= oldest.text.size();
        index.remove(oldest.key);
        entries.pop_back();
    }
}

} // namespace context_sync_engine
