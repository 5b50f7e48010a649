#include "Server.h"

#include "Crypto.h"
#include "HttpServer.h"
#include "Identity.h"
#include "Log.h"
#include "Mailer.h"
#include "Router.h"
#include "Routes.h"
#include "Scheduler.h"
#include "Storage.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

namespace tavelo::cloud {

namespace {
double wallClock() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}
} // namespace

void writeOwnerFile(const std::string& path, const std::string& endpoint, const std::string& key) {
    namespace fs = std::filesystem;
    const fs::path target(path);
    if (target.has_parent_path()) {
        fs::create_directories(target.parent_path());
        ::chmod(target.parent_path().c_str(), 0700);
    }
    const std::string temporary = path + ".tmp-" + std::to_string(getpid());
    ::unlink(temporary.c_str());
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) throw std::runtime_error("cannot create " + temporary);
    const std::string text = "{\"endpoint\": \"" + endpoint + "\", \"connectionKey\": \"" + key + "\"}\n";
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && ::fsync(fd) == 0;
    ::close(fd);
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        throw std::runtime_error("cannot write " + path);
    }
}

int runServer(const Config& config) {
    crypto::initialise();
    std::unique_ptr<Storage> storage;
    try {
        storage = openStorage(config.databaseURL());
        storage->migrate();
    } catch (const std::exception& error) {
        log(LogLevel::error, "storage_unavailable", {{"message", error.what()}});
        return 1;
    }
    Mailer mailer(config.mailSpoolPath(), config.smtpURL, config.mailFrom);
    Identity identity(*storage, mailer, config, wallClock);
    const auto ownerKey = identity.ensureOwnerKey(config.resetOwnerKey);

    int threads = config.threads > 0 ? config.threads : static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    boost::asio::io_context context(threads);
    Scheduler scheduler(*storage, config, wallClock);
    Router router;
    RouteContext routeContext{*storage, identity, config, wallClock, [&scheduler] { scheduler.wake(); }};
    addCloudRoutes(router, routeContext);
    addIdentityRoutes(router, routeContext);

    std::shared_ptr<boost::asio::ssl::context> tls;
    if (config.usesTLS()) {
        try {
            tls = makeTLSContext(config.tlsCertificate, config.tlsKey);
        } catch (const std::exception& error) {
            log(LogLevel::error, "tls_unavailable", {{"message", error.what()}});
            return 1;
        }
    }
    HttpLimits limits;
    limits.trustForwardedFor = config.behindTLSProxy;
    limits.readTimeout = std::chrono::seconds(std::max(1, static_cast<int>(config.readTimeoutSeconds)));
    HttpServer http(context, router, limits, tls);
    std::uint16_t port = 0;
    try {
        port = http.listen(config.listenHost, config.listenPort);
    } catch (const std::exception& error) {
        log(LogLevel::error, "listen_failed", {{"address", config.listenHost + ":" + std::to_string(config.listenPort)},
                                              {"message", error.what()}});
        return 1;
    }
    const std::string endpoint = config.endpoint(port);
    if (ownerKey) {
        try {
            writeOwnerFile(config.ownerFilePath(), endpoint, *ownerKey);
            log(LogLevel::info, "owner_key_written", {{"path", config.ownerFilePath()}});
        } catch (const std::exception& error) {
            log(LogLevel::error, "owner_file_failed", {{"message", error.what()}});
            return 1;
        }
    } else if (!std::filesystem::exists(config.ownerFilePath())) {
        log(LogLevel::warning, "owner_file_missing",
            {{"path", config.ownerFilePath()},
             {"hint", "the owner key exists only as a hash; start once with --reset-owner-key to write a new one"}});
    }
    http.start();
    scheduler.start();
    log(LogLevel::info, "listening", {{"endpoint", endpoint}, {"database", config.database.empty() ? config.databaseURL() : std::string("(configured)")},
                                      {"threads", std::to_string(threads)}});

    std::thread watchdog;
    boost::asio::signal_set signals(context, SIGINT, SIGTERM);
    signals.async_wait([&](const boost::system::error_code& error, int signal) {
        if (error) return;
        log(LogLevel::info, "shutting_down", {{"signal", std::to_string(signal)}});
        http.stop();
        // Requests in flight get some time to finish; then the loop stops.
        watchdog = std::thread([&] {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
            while (http.connectionCount() > 0 && std::chrono::steady_clock::now() < deadline)
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            context.stop();
        });
    });

    std::vector<std::thread> pool;
    for (int i = 1; i < threads; ++i) pool.emplace_back([&] { context.run(); });
    context.run();
    for (auto& thread : pool) thread.join();
    if (watchdog.joinable()) watchdog.join();
    scheduler.stop();
    log(LogLevel::info, "stopped");
    return 0;
}

} // namespace tavelo::cloud
