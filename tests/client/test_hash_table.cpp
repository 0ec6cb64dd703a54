// The chained hash table: its hash to the number, its two comparisons, its positions.
#include "KXMBasMem.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>
#include <vector>

// A client's kind of key.
struct NodePair {
    int one, other;
    bool operator==(const NodePair& p) const { return one == p.one && other == p.other; }
};
template <> unsigned int HashValue<NodePair>(const NodePair& key, unsigned int size) {
    return static_cast<unsigned int>(key.one + key.other) % size;
}

namespace {

TEST(HashValueOfText, LeavesOutLongBeginningsAndTheLastCharacter) {
    const auto hash = [](const std::string& key, unsigned size = 0xFFFFFFFF) {
        return HashValue<const char*>(key.c_str(), size);
    };
    EXPECT_EQ(hash("") + hash("x") + hash("\xff"), 0U);
    EXPECT_EQ(hash("ab"), 97U);
    EXPECT_EQ(hash("ab"), hash("az"));
    EXPECT_EQ(hash("abc"), 292U);
    EXPECT_EQ(hash("abcd"), 781U);
    EXPECT_EQ(hash("\xff.", 2047), 1023U); // signed, and the sum unsigned
    EXPECT_EQ(hash("\xe9l\xe9ment", 1000), 759U);
    const std::string digits = "0123456789012345678901234567"; // 28 of them
    EXPECT_EQ(hash(digits, 2047), 459U);
    EXPECT_EQ(hash(digits + "8", 2047), 0U);
    EXPECT_EQ(hash(digits + "89", 2047), 56U);
    EXPECT_EQ(hash(std::string(28, 'y') + std::string(3000, 'z')), 1137498276U); // sum has wrapped
    EXPECT_EQ(hash(std::string(100028, 'z')), 447425836U);                       // so has factor
}

// Three texts, each at two addresses.
struct Texts {
    std::string first[3] = {"mesh", "mess", "load"}, second[3] = {"mesh", "mess", "load"};
};

TEST(HashTableOfTexts, FindsByTextAndLooksUpByAddress) {
    const Texts texts;
    HashTable<const char*, int> table(1);
    table.Insert(texts.first[0].c_str(), 1);
    int value = -1;
    EXPECT_TRUE(table.LookUp(texts.first[0].c_str(), value));
    EXPECT_EQ(value, 1);
    value = -1;
    EXPECT_FALSE(table.LookUp(texts.second[0].c_str(), value));
    EXPECT_EQ(value, -1);
    EXPECT_EQ(table.find(texts.second[0].c_str()).CurrentValue(), 1);
    table.Delete(texts.second[0].c_str()); // not this one
    ++table[texts.second[0].c_str()];
    EXPECT_TRUE(table.LookUp(texts.first[0].c_str(), value));
    EXPECT_EQ(value, 2);

    // A second key by address, ahead of the first: find meets it first.
    table.Insert(texts.second[0].c_str(), 10);
    EXPECT_EQ(table[texts.first[0].c_str()], 10);
    table.Delete(texts.second[0].c_str());
    EXPECT_EQ(table[texts.first[0].c_str()], 2);
    EXPECT_EQ(table[texts.first[2].c_str()], 0) << "not a default value";
    EXPECT_EQ(table.begin().CurrentKey(), texts.first[2].c_str()) << "not at the head";
    EXPECT_TRUE(table.find(texts.first[1].c_str()).IsDone());
    EXPECT_TRUE(table.find("none") == table.end());
}

// Random histories by address and by text against two maps, few keys in fewer buckets.
TEST(HashTableOfTexts, AgreesWithAModel) {
    std::vector<std::string> names;
    for (int i = 0; i < 60; ++i) {
        names.push_back("folder/of/the/solver/of/" + std::to_string(i % 30) + ".dat");
    }
    for (const unsigned buckets : {1U, 7U, 2047U}) {
        HashTable<const char*, int> by_address(buckets), by_text(buckets);
        std::map<const char*, int> addresses;
        std::map<std::string, int> contents;
        std::mt19937 random(buckets);
        for (int step = 0; step < 4000; ++step) {
            const std::string& name = names[random() % names.size()];
            const char* const key = name.c_str();
            switch (random() % 5) {
            case 0:
            case 1:
                by_address.Insert(key, step);
                addresses[key] = step;
                by_text[key] = step;
                contents[name] = step;
                break;
            case 2:
                by_address.Delete(key);
                addresses.erase(key);
                break;
            case 3: {
                int value = -1;
                const auto known = addresses.find(key);
                ASSERT_EQ(by_address.LookUp(key, value), known != addresses.end());
                ASSERT_EQ(value, known != addresses.end() ? known->second : -1);
                break;
            }
            default: {
                const auto known = contents.find(name);
                const HashIterator<const char*, int> found = by_text.find(key);
                ASSERT_EQ(found.IsDone(), known == contents.end());
                if (!found.IsDone()) {
                    ASSERT_EQ(found.CurrentKey(), name);
                    ASSERT_EQ(found.CurrentValue(), known->second);
                }
            }
            }
        }
        std::size_t entries = 0;
        for (HashIterator<const char*, int> at = by_address.begin(); !at.IsDone(); at.next()) {
            ASSERT_EQ(addresses.at(at.CurrentKey()), at.CurrentValue());
            ++entries;
        }
        EXPECT_EQ(entries, addresses.size());
        by_address.dump();
        by_address.Clear();
        EXPECT_TRUE(by_address.begin() == by_address.end());
        by_address.Insert(names[0].c_str(), 5); // the buckets stayed
        EXPECT_EQ((*by_address.begin()).value, 5);
    }
}

TEST(HashTablePosition, CountsAlongChainsFromOne) {
    HashTable<NodePair, int> table(5);
    EXPECT_EQ(table.First().bucket + table.First().offset, 0U);
    for (int i = 0; i < 3; ++i) {
        table.Insert({i, 4 - i}, 40 + i); // bucket 4
    }
    table[{1, 0}] = 10;
    const unsigned expected[][2] = {{1, 1}, {4, 1}, {4, 2}, {4, 3}, {0, 0}};
    const int values[] = {10, 42, 41, 40};
    iterState pos = table.First();
    HashIterator<NodePair, int> iterator = table.end();
    iterator.First();
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(pos.bucket, expected[i][0]);
        EXPECT_EQ(pos.offset, expected[i][1]);
        EXPECT_EQ(table.CurrentValue(pos), values[i]);
        EXPECT_EQ(table.CurrentKey(pos).one + table.CurrentKey(pos).other, i == 0 ? 1 : 4);
        table.CurrentEntry(pos).value += 100;
        EXPECT_EQ((*iterator).value, values[i] + 100);
        EXPECT_TRUE((HashIterator<NodePair, int>(table, pos) == iterator));
        EXPECT_FALSE(
            (HashIterator<NodePair, int>(table, {pos.bucket, pos.offset + 1}) == iterator));
        pos = table.Next(pos);
        iterator.Next();
    }
    EXPECT_EQ(pos.bucket + pos.offset, 0U);
    EXPECT_TRUE(iterator.IsDone());
    EXPECT_TRUE(iterator.begin() != iterator);
    table.Delete({1, 3}); // in the middle of the chain
    table.Delete({2, 2}); // its head
    EXPECT_EQ(table.CurrentValue({4, 1}), 140);
    EXPECT_TRUE((table.find({1, 3}) == table.end()));
}

void* refuse(std::size_t) {
    return nullptr;
}

class Refusing { // while it lives; what asks under a report is refused as well
public:
    Refusing() : before_(mem_malloc) { mem_malloc = refuse; }
    ~Refusing() { mem_malloc = before_; }

private:
    void* (*before_)(std::size_t);
};

TEST(HashTableOfTexts, StaysAsItWasWhenMemoryIsShort) {
    HashTable<const char*, int> table(3);
    table.Insert("a", 1);
    {
        const Refusing refusing;
        EXPECT_THROW((HashTable<const char*, int>(3)), std::bad_alloc);
        EXPECT_THROW(table["b"], std::bad_alloc);
        table["a"] = 2; // needs nothing
    }
    EXPECT_EQ(table["a"], 2);
    EXPECT_TRUE(table.find("b").IsDone());
    EXPECT_EQ(table.size(), 3U);
    HashTable<const char*, int> none(0);
    int value = 0;
    none.Delete("a");
    EXPECT_TRUE(none.empty() && none.find("a").IsDone() && !none.LookUp("a", value));
}

TEST(TrackerL2, OwnsATableOfFilesByName) {
    HashTable<const char*, KXMBasMemFileHashEntry>& files = KXMBasMemTrackerL2::Instance().m_files;
    EXPECT_EQ(files.size(), 2047U);
    EXPECT_FALSE(files.empty());
    const std::string path(200, 'p');
    EXPECT_STREQ(files[path.c_str()].Name(), "");
    files[path.c_str()] = KXMBasMemFileHashEntry(path.c_str(), -5000000000);
    const std::string again = path;
    const KXMBasMemFileHashEntry entry = files.find(again.c_str()).CurrentValue();
    EXPECT_EQ(entry.Name(), std::string(183, 'p'));
    EXPECT_EQ(entry.Value(), -5000000000);
    omi_SingletonBase<KXMBasMemTrackerL2>::Finalize();
    EXPECT_TRUE(KXMBasMemTrackerL2::Instance().m_files.begin().IsDone());
    omi_SingletonBase<KXMBasMemTrackerL2>::Finalize();
}

} // namespace
