#pragma once

#include <QMetaObject>
#include <QObject>
#include <QPointer>

#include <initializer_list>
#include <vector>

namespace tavelo {

// The object a view model follows (the store, the scene, the cloud) with the
// connections made to it. Switching to another object drops the connections
// made for the previous one, and only those.
//
//     if (!store_.follow(store)) return;
//     store_.on({&AppStore::eventsChanged, &AppStore::calendarsChanged}, this, &WeekModel::rebuild);
template <class Source>
class SourceBinding {
public:
    SourceBinding() = default;
    SourceBinding(const SourceBinding&) = delete;
    SourceBinding& operator=(const SourceBinding&) = delete;
    ~SourceBinding() { release(); }

    Source* get() const { return source_.data(); }
    operator Source*() const { return source_.data(); }
    Source* operator->() const { return source_.data(); }

    // Follows `source` from now on. False, changing nothing, when it is the
    // object already followed.
    bool follow(Source* source) {
        if (source == source_) return false;
        release();
        source_ = source;
        return true;
    }

    // Connects `signal` of the followed object to `slot` of `receiver` until
    // the next switch. Nothing when no object is followed.
    template <class Signal, class Receiver, class Slot>
    void on(Signal signal, const Receiver* receiver, Slot slot) {
        if (source_) connections_.push_back(QObject::connect(source_.data(), signal, receiver, slot));
    }

    // Each of the parameterless signals of `signalList` to the same slot.
    template <class Receiver, class Slot>
    void on(std::initializer_list<void (Source::*)()> signalList, const Receiver* receiver, Slot slot) {
        for (auto signal : signalList) on(signal, receiver, slot);
    }

private:
    void release() {
        for (const auto& connection : connections_) QObject::disconnect(connection);
        connections_.clear();
    }

    QPointer<Source> source_;
    std::vector<QMetaObject::Connection> connections_;
};

} // namespace tavelo
