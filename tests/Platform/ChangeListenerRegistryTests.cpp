// ChangeListenerRegistryTests.cpp - the block-device providers' listeners:
// who an announcement calls when listeners come and go during it, and a
// removal waiting for a call under way on another thread.
#include "ChangeListenerRegistry.h"

#include "TestSupport.h"

using qx::ChangeListenerRegistry;
using Names = std::vector<std::string>;

TEST(ChangeListenerRegistry, CallsEachListenerInOrderUntilRemoved) {
    ChangeListenerRegistry registry;
    std::vector<std::string> calls;
    const auto a = registry.add([&](const Names& names) { calls.push_back("a:" + (names.empty() ? "" : names[0])); });
    const auto b = registry.add([&](const Names& names) { calls.push_back("b:" + (names.empty() ? "" : names[0])); });
    EXPECT_NE(a, 0u);
    EXPECT_NE(a, b);
    registry.announce({"loop0"});
    registry.remove(a);
    registry.remove(a);   // twice: nothing more happens
    registry.remove(999);  // never given
    registry.announce({});
    EXPECT_EQ(calls, (std::vector<std::string>{"a:loop0", "b:loop0", "b:"}));
}

// Three listeners; during the first announcement the acting one (by index)
// removes the target one (or adds a fourth); who is called in that
// announcement and in the next one.
TEST(ChangeListenerRegistry, ListenersChangingTheRegistryDuringAnAnnouncement) {
    struct Case {
        const char* name;
        int actor, target;  // target -1: the actor adds a listener "d"
        const char *first, *second;
    };
    const Case cases[] = {
        {"removes itself", 1, 1, "abc", "ac"},
        {"removes a later one", 0, 2, "abc", "ab"},
        {"removes an earlier one", 2, 0, "abc", "bc"},
        {"adds one", 1, -1, "abc", "abcd"},
    };
    for (const auto& c : cases) {
        ChangeListenerRegistry registry;
        std::string called;
        std::uint64_t tokens[3] = {};
        bool acted = false;
        for (int i = 0; i < 3; ++i)
            tokens[i] = registry.add([&, i](const Names&) {
                called += static_cast<char>('a' + i);
                if (i != c.actor || acted) return;
                acted = true;
                if (c.target < 0)
                    registry.add([&](const Names&) { called += 'd'; });
                else
                    registry.remove(tokens[c.target]);
            });
        registry.announce({});
        EXPECT_EQ(called, c.first) << c.name;
        called.clear();
        registry.announce({});
        EXPECT_EQ(called, c.second) << c.name;
    }
}

TEST(ChangeListenerRegistry, RemovalWaitsForACallUnderWayOnAnotherThread) {
    ChangeListenerRegistry registry;
    std::promise<void> entered, release;
    std::atomic<bool> finished{false};
    const auto token = registry.add([&](const Names&) {
        entered.set_value();
        release.get_future().wait();
        finished = true;
    });
    std::thread announcer([&] { registry.announce({"loop1"}); });
    entered.get_future().wait();
    auto removal = std::async(std::launch::async, [&] {
        registry.remove(token);
        return finished.load();
    });
    // Not a measure of speed: a removal that does not wait comes back at once.
    EXPECT_EQ(removal.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    release.set_value();
    EXPECT_TRUE(removal.get());
    announcer.join();
}
