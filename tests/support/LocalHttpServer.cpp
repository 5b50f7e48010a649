#include "LocalHttpServer.h"

#include <gtest/gtest.h>

namespace tavelo::testing {

std::optional<QByteArray> RecordedRequest::header(const QByteArray& name) const {
    auto it = headers.find(name.toLower());
    if (it == headers.end()) return std::nullopt;
    return it->second;
}

CannedResponse CannedResponse::json(int status, QByteArray body) {
    return CannedResponse{status, {{"Content-Type", "application/json"}}, std::move(body)};
}

CannedResponse CannedResponse::html(int status, QByteArray body) {
    return CannedResponse{status, {{"Content-Type", "text/html; charset=utf-8"}}, std::move(body)};
}

LocalHttpServer::LocalHttpServer() {
    QObject::connect(&server_, &QTcpServer::newConnection, this, &LocalHttpServer::accept);
    if (!server_.listen(QHostAddress::LocalHost, 0)) ADD_FAILURE() << "cannot listen on 127.0.0.1";
}

LocalHttpServer::~LocalHttpServer() {
    for (auto& socket : held_)
        if (socket) socket->abort();
}

QString LocalHttpServer::baseUrl() const { return QStringLiteral("http://127.0.0.1:%1").arg(server_.serverPort()); }

void LocalHttpServer::route(const QByteArray& method, const QByteArray& path, Handler handler) {
    routes_[{method, path}] = std::move(handler);
}

void LocalHttpServer::route(const QByteArray& method, const QByteArray& path, CannedResponse response) {
    route(method, path, [response](const RecordedRequest&) { return std::optional<CannedResponse>(response); });
}

void LocalHttpServer::hold(const QByteArray& method, const QByteArray& path) {
    route(method, path, [](const RecordedRequest&) { return std::optional<CannedResponse>(); });
}

int LocalHttpServer::count(const QByteArray& method, const QByteArray& path) const {
    int n = 0;
    for (const auto& r : requests_)
        if (r.method == method && r.path == path) ++n;
    return n;
}

RecordedRequest LocalHttpServer::last(const QByteArray& method, const QByteArray& path) const {
    for (auto it = requests_.rbegin(); it != requests_.rend(); ++it)
        if (it->method == method && it->path == path) return *it;
    ADD_FAILURE() << "no request " << method.constData() << " " << path.constData();
    return {};
}

bool LocalHttpServer::answerOldestHeld(const CannedResponse& response) {
    while (!held_.empty()) {
        QPointer<QTcpSocket> socket = held_.front();
        held_.erase(held_.begin());
        if (socket && socket->state() == QAbstractSocket::ConnectedState) {
            respond(socket, response);
            return true;
        }
    }
    return false;
}

void LocalHttpServer::accept() {
    while (QTcpSocket* socket = server_.nextPendingConnection()) {
        socket->setParent(this);
        QObject::connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readFrom(socket); });
        QObject::connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            buffers_.erase(socket);
            socket->deleteLater();
        });
    }
}

// One request per connection: the clients close after the reply.
void LocalHttpServer::readFrom(QTcpSocket* socket) {
    QByteArray& buffer = buffers_[socket];
    buffer += socket->readAll();
    const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
    if (headerEnd < 0) return;
    const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
    RecordedRequest request;
    const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
    request.method = requestLine.value(0);
    const QByteArray target = requestLine.value(1);
    const qsizetype question = target.indexOf('?');
    request.path = question < 0 ? target : target.left(question);
    request.query = question < 0 ? QByteArray() : target.mid(question + 1);
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines[i].trimmed();
        const qsizetype colon = line.indexOf(':');
        if (colon > 0) request.headers[line.left(colon).trimmed().toLower()] = line.mid(colon + 1).trimmed();
    }
    const qsizetype length = request.header("content-length").value_or("0").toLongLong();
    if (buffer.size() < headerEnd + 4 + length) return;
    request.body = buffer.mid(headerEnd + 4, length);
    buffer.clear();

    requests_.push_back(request);
    const auto route = routes_.find({request.method, request.path});
    const Handler& handler = route != routes_.end() ? route->second : fallback_;
    if (!handler)
        respond(socket, CannedResponse{404, {{"Content-Type", "text/plain"}}, "no route"});
    else if (auto response = handler(request))
        respond(socket, *response);
    else
        held_.emplace_back(socket);
}

void LocalHttpServer::respond(QTcpSocket* socket, const CannedResponse& response) {
    QByteArray out = "HTTP/1.1 " + QByteArray::number(response.status) + " Status\r\n";
    for (const auto& [name, value] : response.headers) out += name + ": " + value + "\r\n";
    out += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
    out += "Connection: close\r\n\r\n";
    out += response.body;
    socket->write(out);
    socket->disconnectFromHost();
}

} // namespace tavelo::testing
