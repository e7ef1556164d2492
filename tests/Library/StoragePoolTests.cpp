// StoragePoolTests.cpp - storage given back by data objects.

#include "TestSupport.h"
#include "Internal/QXStoragePool.h"

TEST(StoragePool, StorageComesBackOnlyWhenTheLastHolderLetsGo) {
    auto pool = QXStoragePool::create(4, 16, 1024);
    auto data = pool->take();
    data->append("0123456789abcdefghij", 20);
    const std::uint8_t* storage = data->bytes();
    auto holder = data;  // another holder keeps the bytes intact
    data.reset();
    EXPECT_EQ(pool->keptCount(), 0u);
    auto other = pool->take();
    EXPECT_NE(other->bytes(), storage);  // new storage while the first is held
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(holder->bytes()), 20), "0123456789abcdefghij");
    holder.reset();
    EXPECT_EQ(pool->keptCount(), 1u);
    auto again = pool->take();
    EXPECT_EQ(again->length(), 0u);  // handed out empty, capacity kept
    again->append("x", 1);
    EXPECT_EQ(again->bytes(), storage);
    pool.reset();
    again.reset();  // its pool is gone: the storage is freed (the leak checker watches)
}

TEST(StoragePool, KeepsWithinItsBoundsAndPassesOverWhatTheTakerRefuses) {
    auto pool = QXStoragePool::create(2, 16, 64);
    std::vector<qx::Ref<qx::Data>> datas;
    for (std::size_t size : {8, 32, 48, 128, 40}) datas.push_back(pool->wrap(std::vector<std::uint8_t>(size)));
    datas.clear();  // 8 is too small, 128 too large, and only two (32, 48) are kept
    EXPECT_EQ(pool->keptCount(), 2u);
    auto taken = pool->takeStorage([](const std::vector<std::uint8_t>& s) { return s.capacity() < 40; });
    EXPECT_EQ(taken.capacity(), 32u);
    EXPECT_EQ(taken.size(), 32u);      // as the last holder left it
    EXPECT_EQ(pool->keptCount(), 0u);  // 48, passed over on the way, was freed
    EXPECT_EQ(pool->takeStorage().capacity(), 0u);
}
