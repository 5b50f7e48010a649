#pragma once

#include <mutex>
#include <string>

namespace tavelo::cloud {

// Outgoing mail. With an SMTP relay ("smtp://host:port", plain SMTP without
// authentication, as a local relay offers) mails go there; without one, or
// when the relay refuses, they are appended to a spool file (mode 0600) that
// the server's owner reads, so that no mail is lost.
class Mailer {
public:
    Mailer(std::string spoolPath, std::string smtpURL = {}, std::string from = {});
    // Throws std::runtime_error when the mail can be neither sent nor spooled.
    void send(const std::string& to, const std::string& subject, const std::string& body);
    const std::string& spoolPath() const { return spoolPath_; }

private:
    void spool(const std::string& to, const std::string& subject, const std::string& body);
    // Throws std::runtime_error with the relay's answer on failure.
    void deliver(const std::string& to, const std::string& subject, const std::string& body);

    std::string spoolPath_;
    std::string smtpURL_;
    std::string from_;
    std::mutex mutex_;
};

} // namespace tavelo::cloud
