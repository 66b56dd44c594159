// Not under the thread sanitizer: it is all one thread, and takes minutes there.
#include "tests/model/as_model.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "kestrelexp/builtin.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/record.h"
#include "tests/support/lifelong.h"
#include "tests/support/scratch_file.h"

namespace {

using namespace kestrel_model;
using kestrel_test::keep;
using kestrel_test::scratch_file;

// The bytes of an address as the wire has them, from its words.
std::string text_of(const address_words& words) {
    uint8_t wire[16];
    for (size_t byte = 0; byte < 4 * words.size(); ++byte) {
        const uint32_t word = words[words.size() - 1 - byte / 4];
        wire[byte] = static_cast<uint8_t>(word >> (24 - 8 * (byte % 4)));
    }
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(words.size() == 1 ? AF_INET : AF_INET6, wire, text, sizeof text);
}

// A table of random networks in a file, loaded by the program and held by two models.
class table_pair {
  public:
    explicit table_pair(uint64_t seed) : random_(seed) {
        // Few distinct bytes make networks that meet, lie in each other and repeat; many make
        // tables like those of routers.
        spread_ = 1 + random_() % 8;
        std::string lines;
        const uint64_t count = random_() % (seed % 7 == 0 ? 2000 : 60);
        for (uint64_t i = 0; i < count; ++i)
            lines += random_line();
        file_.write(lines);
        state_ = keep(__as_helper_init(file_.path(), nullptr));
    }

    bool loaded() const { return state_ != nullptr; }

    void compare_one_flow() {
        const size_t words = random_() % 2 == 0 ? 1 : 4;
        const address_words source = interesting_address(words);
        const address_words destination = interesting_address(words);
        flow_record flow = record_of(source, destination);
        ASSERT_EQ(0, as_helper_lookup(state_, &flow));
        const as_model& model = words == 1 ? model4_ : model6_;
        const uint32_t expected = model.find(source);
        ASSERT_EQ(expected, read(as_helper_get_src)) << text_of(source);
        ASSERT_EQ(model.find(destination), read(as_helper_get_dst)) << text_of(destination);
        hits_ += expected != 0;
    }

    uint64_t hits() const { return hits_; }

  private:
    std::string random_line() {
        const size_t words = random_() % 2 == 0 ? 1 : 4;
        as_network network;
        network.number = static_cast<uint32_t>(1 + random_() % 0xFFFF'FFFF);
        network.address = random_address(words);
        network.prefix_length = random_prefix(words);
        (words == 1 ? model4_ : model6_).add(network);
        (words == 1 ? networks4_ : networks6_).push_back(network.address);
        return std::to_string(network.number) + "-" + text_of(network.address) + "/" +
               std::to_string(network.prefix_length) + "\n";
    }

    unsigned random_prefix(size_t words) {
        const unsigned most = static_cast<unsigned>(32 * words);
        switch (random_() % 4) {
            case 0:
                return most;
            case 1:  // about a word's end
                return static_cast<unsigned>(random_() % words * 32 + random_() % 9);
            default:
                return static_cast<unsigned>(random_() % (most + 1));
        }
    }

    address_words random_address(size_t words) {
        address_words address(words);
        for (uint32_t& word : address)
            for (int byte = 0; byte < 4; ++byte)
                word = word << 8 | static_cast<uint8_t>(random_() % spread_ * 37);
        return address;
    }

    // Mostly one of the table's own networks, with some bits changed.
    address_words interesting_address(size_t words) {
        const auto& own = words == 1 ? networks4_ : networks6_;
        if (own.empty() || random_() % 4 == 0)
            return random_address(words);
        address_words address = own[random_() % own.size()];
        for (uint64_t changes = random_() % 3; changes > 0; --changes)
            address[random_() % words] ^= uint32_t{1} << (random_() % 32);
        return address;
    }

    static flow_record record_of(const address_words& source, const address_words& destination) {
        flow_record flow = {};
        if (source.size() == 1) {
            flow.l3protocol = 4;
            flow.ipv4 = {source[0], destination[0], 0};
        } else {
            flow.l3protocol = 6;
            std::memcpy(flow.ipv6.srcipv6, source.data(), 16);
            std::memcpy(flow.ipv6.dstipv6, destination.data(), 16);
        }
        return flow;
    }

    uint32_t read(getter_get_function* get) {
        uint32_t number;
        get(state_, nullptr, &number, sizeof number, 0, nullptr);
        return number;
    }

    std::mt19937_64 random_;
    uint64_t spread_;
    scratch_file file_;
    as_model model4_;
    as_model model6_;
    std::vector<address_words> networks4_;
    std::vector<address_words> networks6_;
    as_helper_state* state_ = nullptr;
    uint64_t hits_ = 0;
};

TEST(AsAgainstModel, FindsTheSameNumbers) {
    constexpr int tables = 1000, flows = 200;  // two addresses each: 400,000 cases
    uint64_t hits = 0;
    for (int seed = 1; seed <= tables; ++seed) {
        table_pair both(static_cast<uint64_t>(seed));
        ASSERT_TRUE(both.loaded()) << seed;
        for (int n = 0; n < flows; ++n) {
            both.compare_one_flow();
            if (HasFatalFailure())
                FAIL() << "table " << seed << " flow " << n;
        }
        hits += both.hits();
    }
    // Neither all nor none of them.
    EXPECT_LT(uint64_t{tables * flows / 5}, hits);
    EXPECT_GT(uint64_t{tables * flows * 9 / 10}, hits);
}

// What the model itself is worth, by hand.
TEST(AsModel, FollowsTheHalvingSearch) {
    as_model model;
    model.add({16, {0x0A010000}, 16});
    model.add({8, {0x0A000000}, 8});
    EXPECT_EQ(8u, model.find({0x0A010203}));
    model.add({20, {0x14000000}, 8});
    EXPECT_EQ(16u, model.find({0x0A010203}));
    EXPECT_EQ(0u, model.find({0x0A020304}));
}

TEST(AsModel, CountsThePrefixFromTheLeastSignificantWord) {
    as_model model;
    model.add({65002, {0, 0, 0, 0x20010DB8}, 32});
    EXPECT_EQ(65002u, model.find({0, 5, 6, 7}));
    EXPECT_EQ(0u, model.find({1, 0, 0, 0x20010DB8}));
}

}  // namespace
