#include "Mailer.h"

#include "Crypto.h"
#include "Log.h"

#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <stdexcept>

namespace tavelo::cloud {

namespace {

std::string dateHeader() {
    std::time_t now = std::time(nullptr);
    char date[64];
    std::tm tm{};
    gmtime_r(&now, &tm);
    std::strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S +0000", &tm);
    return date;
}

// A blocking SMTP conversation with a ten-second limit on each step.
class SmtpSession {
public:
    SmtpSession(const std::string& host, const std::string& port) {
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0 || !found)
            throw std::runtime_error("cannot resolve the SMTP relay " + host);
        for (addrinfo* a = found; a && fd_ < 0; a = a->ai_next) {
            fd_ = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
            if (fd_ < 0) continue;
            timeval limit{10, 0};
            ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
            ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
            if (::connect(fd_, a->ai_addr, a->ai_addrlen) != 0) {
                ::close(fd_);
                fd_ = -1;
            }
        }
        freeaddrinfo(found);
        if (fd_ < 0) throw std::runtime_error("cannot connect to the SMTP relay " + host + ":" + port);
    }
    ~SmtpSession() {
        if (fd_ >= 0) ::close(fd_);
    }
    // Sends `line` (unless empty) and expects a reply whose code starts with `expected`.
    void step(const std::string& line, char expected) {
        if (!line.empty()) write(line + "\r\n");
        const std::string reply = readReply();
        if (reply.empty() || reply[0] != expected) throw std::runtime_error("the SMTP relay answered: " + reply);
    }
    void write(const std::string& text) {
        std::size_t sent = 0;
        while (sent < text.size()) {
            const ssize_t n = ::send(fd_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) throw std::runtime_error("the SMTP relay closed the connection");
            sent += static_cast<std::size_t>(n);
        }
    }

private:
    // One reply, following "250-" continuation lines to the last.
    std::string readReply() {
        for (;;) {
            const auto end = buffer_.find("\r\n");
            if (end != std::string::npos) {
                std::string line = buffer_.substr(0, end);
                buffer_.erase(0, end + 2);
                if (line.size() >= 4 && line[3] == '-') continue;
                return line;
            }
            char chunk[1024];
            const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
            if (n <= 0) return {};
            buffer_.append(chunk, static_cast<std::size_t>(n));
            if (buffer_.size() > 65536) return {};
        }
    }
    int fd_ = -1;
    std::string buffer_;
};

} // namespace

Mailer::Mailer(std::string spoolPath, std::string smtpURL, std::string from)
    : spoolPath_(std::move(spoolPath)), smtpURL_(std::move(smtpURL)), from_(std::move(from)) {
    if (from_.empty()) {
        char host[256] = {};
        gethostname(host, sizeof host - 1);
        from_ = std::string("tavelo-cloud@") + (*host ? host : "localhost");
    }
}

void Mailer::send(const std::string& to, const std::string& subject, const std::string& body) {
    if (!smtpURL_.empty()) {
        try {
            deliver(to, subject, body);
            return;
        } catch (const std::exception& error) {
            log(LogLevel::warning, "mail_spooled_instead", {{"message", error.what()}});
        }
    }
    spool(to, subject, body);
}

void Mailer::deliver(const std::string& to, const std::string& subject, const std::string& body) {
    std::string rest = smtpURL_.starts_with("smtp://") ? smtpURL_.substr(7) : smtpURL_;
    if (const auto slash = rest.find('/'); slash != std::string::npos) rest.resize(slash);
    const auto colon = rest.rfind(':');
    const std::string host = colon == std::string::npos ? rest : rest.substr(0, colon);
    const std::string port = colon == std::string::npos ? "25" : rest.substr(colon + 1);
    std::string text = "From: " + from_ + "\r\nTo: " + to + "\r\nSubject: =?UTF-8?B?" +
                       crypto::base64Encode(subject) + "?=\r\nDate: " + dateHeader() +
                       "\r\nMIME-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8\r\n"
                       "Content-Transfer-Encoding: 8bit\r\n\r\n";
    // Lines end in CRLF, and a line starting with "." gets another one.
    std::string line;
    for (std::size_t i = 0; i <= body.size(); ++i) {
        if (i == body.size() || body[i] == '\n') {
            if (line.starts_with(".")) text += ".";
            text += line + "\r\n";
            line.clear();
        } else if (body[i] != '\r') {
            line.push_back(body[i]);
        }
    }
    std::lock_guard lock(mutex_);
    SmtpSession session(host, port);
    session.step("", '2');
    session.step("EHLO tavelo-cloud", '2');
    session.step("MAIL FROM:<" + from_ + ">", '2');
    session.step("RCPT TO:<" + to + ">", '2');
    session.step("DATA", '3');
    session.write(text);
    session.step(".", '2');
    try {
        session.step("QUIT", '2');
    } catch (const std::exception&) {
        // The mail is accepted; a rude goodbye changes nothing.
    }
}

void Mailer::spool(const std::string& to, const std::string& subject, const std::string& body) {
    const std::string date = dateHeader();
    // mbox-style, so that any mail reader can open the spool.
    std::string text = "From tavelo-cloud " + date + "\nFrom: tavelo-cloud\nTo: " + to +
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
