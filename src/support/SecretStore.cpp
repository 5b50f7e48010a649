#include "support/SecretStore.h"

#include "support/Async.h"

#include <qt6keychain/keychain.h>

namespace tavelo {

namespace {

std::int32_t statusOf(QKeychain::Error error) {
    switch (error) {
    case QKeychain::NoError: return SecretStatus::success;
    case QKeychain::EntryNotFound: return SecretStatus::itemNotFound;
    case QKeychain::AccessDeniedByUser:
    case QKeychain::AccessDenied: return SecretStatus::authFailed;
    case QKeychain::NoBackendAvailable:
    case QKeychain::NotImplemented: return SecretStatus::notAvailable;
    case QKeychain::CouldNotDeleteEntry:
    case QKeychain::OtherError: break;
    }
    return SecretStatus::internalFailure;
}

struct JobDeleter {
    void operator()(QKeychain::Job* job) const {
        if (job) job->deleteLater();
    }
};

template <class JobType>
using JobPointer = std::unique_ptr<JobType, JobDeleter>;

template <class JobType>
JobPointer<JobType> makeJob(const QString& service, const QString& account) {
    JobPointer<JobType> job(new JobType(service));
    job->setAutoDelete(false);
    job->setInsecureFallback(false);
    job->setKey(account);
    return job;
}

// Starts the job and waits for its `finished` signal.
QCoro::Task<void> run(QKeychain::Job& job) {
    Continuation<bool> finished;
    QObject::connect(&job, &QKeychain::Job::finished, [finished]() mutable { finished.resume(true); });
    job.start();
    co_await finished;
}

} // namespace

QCoro::Task<SecretReadResult> KeychainSecretStore::read(QString service, QString account) {
    auto job = makeJob<QKeychain::ReadPasswordJob>(service, account);
    co_await run(*job);
    SecretReadResult result;
    result.status = statusOf(job->error());
    if (result.status == SecretStatus::success) result.data = job->binaryData();
    co_return result;
}

QCoro::Task<std::int32_t> KeychainSecretStore::save(QString service, QString account, QByteArray data) {
    auto job = makeJob<QKeychain::WritePasswordJob>(service, account);
    job->setBinaryData(data);
    co_await run(*job);
    co_return statusOf(job->error());
}

QCoro::Task<std::int32_t> KeychainSecretStore::remove(QString service, QString account) {
    auto job = makeJob<QKeychain::DeletePasswordJob>(service, account);
    co_await run(*job);
    co_return statusOf(job->error());
}

} // namespace tavelo
