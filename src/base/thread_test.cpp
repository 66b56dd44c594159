// Tests of the thread starter: what a worker thread is born with.
#include "base/thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>

namespace kestrel {
namespace {

struct worker {
    sem_t done;
    sigset_t mask;
    int detach_state;
};

void* look_around(void* argument) {
    worker& self = *static_cast<worker*>(argument);
    pthread_sigmask(SIG_BLOCK, nullptr, &self.mask);
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getdetachstate(&attributes, &self.detach_state);
    pthread_attr_destroy(&attributes);
    sem_post(&self.done);
    return nullptr;
}

struct Thread : testing::Test {
    void SetUp() override {
        sem_init(&self.done, 0, 0);
        sigemptyset(&self.mask);
        ASSERT_TRUE(start_thread(look_around, &self));
        while (sem_wait(&self.done) != 0) {
        }
    }
    void TearDown() override { sem_destroy(&self.done); }

    worker self{};
};

TEST_F(Thread, AWorkerBlocksTheHandledSignals) {
    EXPECT_EQ(sigismember(&self.mask, SIGINT), 1);
    EXPECT_EQ(sigismember(&self.mask, SIGQUIT), 1);
    EXPECT_EQ(sigismember(&self.mask, SIGALRM), 1);
}

TEST_F(Thread, AWorkerLeavesOtherSignalsAlone) {
    EXPECT_EQ(sigismember(&self.mask, SIGUSR1), 0);
    EXPECT_EQ(sigismember(&self.mask, SIGSEGV), 0);
}

TEST_F(Thread, AWorkerIsDetached) {
    EXPECT_EQ(self.detach_state, PTHREAD_CREATE_DETACHED);
}

TEST_F(Thread, TheStarterKeepsItsSignals) {
    sigset_t mine;
    pthread_sigmask(SIG_BLOCK, nullptr, &mine);
    EXPECT_EQ(sigismember(&mine, SIGINT), 0);
    EXPECT_EQ(sigismember(&mine, SIGQUIT), 0);
    EXPECT_EQ(sigismember(&mine, SIGALRM), 0);
}

}  // namespace
}  // namespace kestrel
