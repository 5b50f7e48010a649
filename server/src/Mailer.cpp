#include "Mailer.h"

#include <fcntl.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <stdexcept>

namespace tavelo::cloud {

Mailer::Mailer(std::string spoolPath) : spoolPath_(std::move(spoolPath)) {}

void Mailer::send(const std::string& to, const std::string& subject, const std::string& body) {
    std::time_t now = std::time(nullptr);
    char date[64];
    std::tm tm{};
    gmtime_r(&now, &tm);
    std::strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S +0000", &tm);
    // mbox-style, so that any mail reader can open the spool.
    std::string text = "From tavelo-cloud " + std::string(date) + "\nFrom: tavelo-cloud\nTo: " + to +
                       "\nSubject: " + subject + "\nDate: " + date +
                       "\nContent-Type: text/plain; charset=utf-8\n\n" + body + "\n\n";
    std::lock_guard lock(mutex_);
    const auto parent = std::filesystem::path(spoolPath_).parent_path();
    if (!parent.empty()) std::filesystem::create_directories(parent);
    const int fd = ::open(spoolPath_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) throw std::runtime_error("cannot open the mail spool " + spoolPath_);
    const char* data = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, data, left);
        if (n <= 0) {
            ::close(fd);
            throw std::runtime_error("cannot write the mail spool " + spoolPath_);
        }
        data += n;
        left -= static_cast<std::size_t>(n);
    }
    ::fsync(fd);
    ::close(fd);
}

} // namespace tavelo::cloud
