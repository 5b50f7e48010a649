#pragma once

// A small HTTP/1.1 server on 127.0.0.1 for tests: requests really travel over
// a socket, with their headers and bodies, and the test decides per route
// what comes back — any status, any body, or nothing yet (the request is held
// until the test answers it, or forever, to provoke a timeout).

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTcpServer>
#include <QTcpSocket>

#include "support/TestWait.h"

#include <functional>
#include <map>
#include <optional>
#include <utility>
#include <vector>

namespace tavelo::testing {

struct RecordedRequest {
    QByteArray method;
    QByteArray path;  // without the query
    QByteArray query; // without the "?"
    std::map<QByteArray, QByteArray> headers; // names in lower case
    QByteArray body;

    std::optional<QByteArray> header(const QByteArray& name) const;
};

struct CannedResponse {
    int status = 200;
    std::vector<std::pair<QByteArray, QByteArray>> headers;
    QByteArray body;

    static CannedResponse json(int status, QByteArray body);
    static CannedResponse html(int status, QByteArray body);
};

class LocalHttpServer : public QObject {
    Q_OBJECT
public:
    // Gives the response, or nothing to hold the request.
    using Handler = std::function<std::optional<CannedResponse>(const RecordedRequest&)>;

    LocalHttpServer();
    ~LocalHttpServer() override;

    // "http://127.0.0.1:<port>"
    QString baseUrl() const;

    void route(const QByteArray& method, const QByteArray& path, Handler handler);
    void route(const QByteArray& method, const QByteArray& path, CannedResponse response);
    // Answers every request that no route matches.
    void setFallback(Handler handler) { fallback_ = std::move(handler); }
    // Every request to the route is held.
    void hold(const QByteArray& method, const QByteArray& path);

    const std::vector<RecordedRequest>& requests() const { return requests_; }
    int count(const QByteArray& method, const QByteArray& path) const;
    // The last request to the route; fails the test when there is none.
    RecordedRequest last(const QByteArray& method, const QByteArray& path) const;

    std::size_t heldCount() const { return held_.size(); }
    // Answers the oldest held request. False when its client has gone.
    bool answerOldestHeld(const CannedResponse& response);

    // Runs the event loop until `done` holds or `milliseconds` pass.
    static bool waitUntil(const std::function<bool()>& done, int milliseconds = 5000) {
        return testing::waitUntil(done, milliseconds);
    }

private:
    void accept();
    void readFrom(QTcpSocket* socket);
    static void respond(QTcpSocket* socket, const CannedResponse& response);

    QTcpServer server_;
    std::map<std::pair<QByteArray, QByteArray>, Handler> routes_;
    std::map<QTcpSocket*, QByteArray> buffers_;
    std::vector<RecordedRequest> requests_;
    std::vector<QPointer<QTcpSocket>> held_;
    Handler fallback_;
};

} // namespace tavelo::testing
