#include "platform/logs/classlogs.h"

#include <QDir>

#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/ansicolor_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>

namespace utility::logs {

namespace {

std::mutex instance_mutex;
classlogs* instance = nullptr;

spdlog::level::level_enum to_spdlog(int level)
{
    switch (level) {
    case Fatal:
    case Critical:
        return spdlog::level::critical;
    case Error:
        return spdlog::level::err;
    case Warning:
        return spdlog::level::warn;
    case Info:
        return spdlog::level::info;
    case Debug:
        return spdlog::level::debug;
    default:
        return spdlog::level::trace;
    }
}

}  // namespace

classlogs* classlogs::createInstance(const classlogs_settings_t& settings)
{
    std::lock_guard lock(instance_mutex);
    if (!instance)
        instance = new classlogs(settings);
    return instance;
}

classlogs* classlogs::getInstance()
{
    std::lock_guard lock(instance_mutex);
    return instance;
}

void classlogs::destroyInstance()
{
    classlogs* old = nullptr;
    {
        std::lock_guard lock(instance_mutex);
        old = instance;
        instance = nullptr;
    }
    delete old;  // the destructor drains the queue before the writer thread ends
}

void classlogs::write(const QString& message, int level, const char* function, const char* file,
                      int line)
{
    // The instance mutex is held while queuing so that destroyInstance() cannot delete the
    // facility under a caller on another thread.
    std::lock_guard lock(instance_mutex);
    if (instance)
        instance->log_asynch(message, level, QString::fromLatin1(function),
                             QString::fromLatin1(file), line);
}

classlogs::classlogs(const classlogs_settings_t& settings)
    : settings_(settings)
{
    const QString pattern = QStringLiteral("[%Y-%m-%d %H:%M:%S.%e] [%^%l%$] %v");
    if (settings_.console) {
        console_sink_ = std::make_shared<spdlog::sinks::ansicolor_stdout_sink_mt>();
        console_sink_->set_pattern(pattern.toStdString());
    }
    if (!settings_.folder.isEmpty()) {
        QDir().mkpath(settings_.folder);
        const QString path = QDir(settings_.folder).filePath(settings_.file_name + ".log");
        const std::size_t size = std::size_t(qMax(1u, settings_.size_mb)) * 1024 * 1024;
        try {
            file_sink_ = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
                path.toStdString(), size, qMax(1u, settings_.rotate));
            file_sink_->set_pattern(pattern.toStdString());
        } catch (const std::exception& error) {
            // An unwritable log folder must not stop the server: keep the console only.
            fprintf(stderr, "Unable to open log file %s: %s\n", qPrintable(path), error.what());
            file_sink_.reset();
        }
    }
    writer_ = std::thread([this] { run(); });
}

classlogs::~classlogs()
{
    {
        std::lock_guard lock(queue_mutex_);
        stopping_ = true;
    }
    queue_cv_.notify_all();
    writer_.join();
    if (console_sink_)
        console_sink_->flush();
    if (file_sink_)
        file_sink_->flush();
}

QString classlogs::file_path() const
{
    if (!file_sink_)
        return {};
    return QDir(settings_.folder).filePath(settings_.file_name + ".log");
}

void classlogs::log_asynch(const QString& message, int level, const QString& function,
                           const QString& file, int line)
{
    log_record_t record{message, qBound(kLogLevelMin, level, kLogLevelMax), function, file, line,
                        QDateTime::currentDateTime()};
    {
        std::lock_guard lock(queue_mutex_);
        queue_.push_back(std::move(record));
        ++queued_;
    }
    queue_cv_.notify_one();
}

void classlogs::flush()
{
    std::unique_lock lock(queue_mutex_);
    const std::uint64_t target = queued_;
    written_cv_.wait(lock, [&] { return written_ >= target; });
    lock.unlock();
    if (console_sink_)
        console_sink_->flush();
    if (file_sink_)
        file_sink_->flush();
}

int classlogs::add_listener(listener_t listener)
{
    std::lock_guard lock(listeners_mutex_);
    const int id = next_listener_id_++;
    listeners_.emplace(id, std::move(listener));
    return id;
}

void classlogs::remove_listener(int id)
{
    std::lock_guard lock(listeners_mutex_);
    listeners_.erase(id);
}

void classlogs::run()
{
    std::unique_lock lock(queue_mutex_);
    for (;;) {
        queue_cv_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (queue_.empty() && stopping_)
            return;
        std::deque<log_record_t> batch;
        batch.swap(queue_);
        lock.unlock();
        for (const log_record_t& record : batch)
            emit_record(record);
        lock.lock();
        written_ += batch.size();
        written_cv_.notify_all();
    }
}

void classlogs::emit_record(const log_record_t& record)
{
    const std::string text = QStringLiteral("[%1] [%2:%3] %4")
                                 .arg(record.file, record.function)
                                 .arg(record.line)
                                 .arg(record.message)
                                 .toStdString();
    const spdlog::details::log_msg msg(spdlog::source_loc{}, "orvane", to_spdlog(record.level),
                                       spdlog::string_view_t(text.data(), text.size()));
    try {
        if (console_sink_ && unsigned(record.level) <= settings_.level_std)
            console_sink_->log(msg);
        if (file_sink_ && unsigned(record.level) <= settings_.level_file)
            file_sink_->log(msg);
    } catch (const std::exception& error) {
        fprintf(stderr, "Log sink failed: %s\n", error.what());
    }
    std::lock_guard lock(listeners_mutex_);
    for (const auto& [id, listener] : listeners_)
        listener(record);
}

}  // namespace utility::logs
