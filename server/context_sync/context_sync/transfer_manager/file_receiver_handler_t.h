// file_receiver_handler_t is the state of one file that a client is uploading: the client and
// the relative path of the reception, the decoded chunks received so far (kept in memory until the
// file is complete), the chunk count announced by its first chunk, the byte estimate and counters
// that the progress line reports, the name of its staging file, and the timer that notices a
// silence inside the file.
//
// Thread: created, used and deleted by the file receiver on the receiver's thread. Plain data with
// public members; the receiver drives it. Owns chunk_timer and aux_object (both released by
// reset()). Emits no signals of its own.
#pragma once

#include "context_sync/context_sync_export.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QString>

class QTimer;

namespace context_sync_engine {

class CONTEXT_SYNC_EXPORT file_receiver_handler_t : public QObject {
    Q_OBJECT

public:
    explicit file_receiver_handler_t(QObject* parent = nullptr);
    ~file_receiver_handler_t() override;

    file_receiver_handler_t(const file_receiver_handler_t&) = delete;
    file_receiver_handler_t& operator=(const file_receiver_handler_t&) = delete;

    // Deletes chunk_timer and aux_object when set and nulls both; the chunks stay.
    void reset();

    QObject* aux_object = nullptr;
    // The client uploading the file, and its path relative to the root: only that client's
    // chunks of that path go into this reception.
    QString owner;
    QString file;
    int total_chunks = 0;
    QHash<int, QByteArray> chunks;
    QTimer* chunk_timer = nullptr;
    QElapsedTimer elapsed;
    QString part_path;
    qint64 received_bytes = 0;
    qint64 expected_bytes = 0;
    double speed = 0.0;
    int percent = 0;
};

} // namespace context_sync_engine
