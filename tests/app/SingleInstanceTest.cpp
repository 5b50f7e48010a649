#include "app/SingleInstance.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace tavelo;

namespace {

class SingleInstanceTest : public ::testing::Test {
protected:
    QTemporaryDir dir;
};

TEST_F(SingleInstanceTest, ALaterStartHandsItsMessageToTheRunningOneAndStaysSecondary) {
    SingleInstance first(dir.path());
    ASSERT_TRUE(first.tryBecomePrimary());
    QSignalSpy activations(&first, &SingleInstance::activationRequested);

    SingleInstance second(dir.path());
    EXPECT_FALSE(second.tryBecomePrimary("open calendar\nand more"));
    EXPECT_TRUE(second.handedOver());
    EXPECT_FALSE(second.isPrimary());
    ASSERT_TRUE(activations.wait(5000));
    EXPECT_EQ(activations.takeFirst().at(0).toByteArray(), "open calendar and more");

    SingleInstance third(dir.path());
    EXPECT_FALSE(third.tryBecomePrimary());
    ASSERT_TRUE(activations.wait(5000));
    EXPECT_EQ(activations.takeFirst().at(0).toByteArray(), "activate");
}

TEST_F(SingleInstanceTest, TheNextStartAfterTheRunningOneEndsBecomesPrimaryDespiteAStaleSocket) {
    {
        SingleInstance gone(dir.path());
        ASSERT_TRUE(gone.tryBecomePrimary());
    }
    // What a killed primary leaves: the socket file, but no lock.
    QFile stale(dir.filePath("tavelo.socket"));
    ASSERT_TRUE(stale.open(QIODevice::WriteOnly));
    stale.close();

    SingleInstance next(dir.path());
    ASSERT_TRUE(next.tryBecomePrimary());
    QSignalSpy activations(&next, &SingleInstance::activationRequested);
    SingleInstance later(dir.path());
    EXPECT_FALSE(later.tryBecomePrimary());
    EXPECT_TRUE(activations.wait(5000));
}

} // namespace
