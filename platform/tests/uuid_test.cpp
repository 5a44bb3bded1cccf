#include <zym/common/uuid.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using zym::common::Uuid;

char const* const PLAIN = "00112233-4455-6677-8899-aabbccddeeff";
char const* const BASE64 = "ABEiM0RVZneImaq7zN3u_w";

TEST(AUuid, IsNilByDefault) {
    static_assert(sizeof(Uuid) == 16, "16 bytes");
    constexpr Uuid id(5);
    static_assert(!id.isNil() && id != Uuid::NIL && id == Uuid(5) && Uuid::NIL.isNil());
    EXPECT_TRUE(Uuid().isNil());
    EXPECT_EQ(Uuid(), Uuid::NIL);
    EXPECT_EQ(Uuid(0), Uuid::NIL);
}

TEST(AUuid, IsPrintedInThePlainAndInTheBase64Form) {
    EXPECT_EQ(Uuid().to_string(), "00000000-0000-0000-0000-000000000000");
    EXPECT_EQ(Uuid().base64URL(), std::string(22, 'A'));
    EXPECT_EQ(Uuid::UNKNOWN.to_string(), "ffffffff-ffff-ffff-ffff-ffffffffffff");
    EXPECT_EQ(Uuid::UNKNOWN.base64URL(), "_____________________w");
    // A number stands big-endian in the last eight bytes.
    EXPECT_EQ(Uuid(0x0102030405060708ULL).to_string(), "00000000-0000-0000-0102-030405060708");
    EXPECT_EQ(Uuid(0xffffffffffffffffULL).to_string(), "00000000-0000-0000-ffff-ffffffffffff");
}

TEST(AUuidFromText, IsReadFromBothFormsInEitherCase) {
    for (std::string const text : {PLAIN, "00112233-4455-6677-8899-AABBCCDDEEFF",
                                   "00112233-4455-6677-8899-aAbBcCdDeEfF", BASE64}) {
        EXPECT_EQ(Uuid(text).to_string(), PLAIN);
        EXPECT_EQ(Uuid(text).base64URL(), BASE64);
    }
    EXPECT_EQ(Uuid(std::string("-_-_-_-_-_-_-_-_-_-_-Q")).base64URL(), "-_-_-_-_-_-_-_-_-_-_-Q");
}

TEST(AUuidFromText, PrintsBackTheSameInEveryByte) {
    for (unsigned shift = 0; shift < 64; ++shift) {
        Uuid const id(0x8000000000000001ULL >> shift | 0x5aULL << shift);
        EXPECT_EQ(Uuid(id.to_string()), id);
        EXPECT_EQ(Uuid(id.base64URL()), id);
    }
}

TEST(AUuidFromText, IsRefusedForEveryOtherText) {
    std::vector<std::string> texts{"",
                                   "0",
                                   "00112233-4455-6677-8899-aabbccddeefg",
                                   "00112233-4455-6677-8899_aabbccddeeff",
                                   "001122334-455-6677-8899-aabbccddeeff",
                                   "00112233445566778899aabbccddeeff"};
    for (std::string const good : {PLAIN, BASE64}) {
        texts.insert(texts.end(), {good.substr(1), good + "0", good + "=", good + "=="});
        for (char const bad : std::string("/+ {~@\0\xc3", 8)) {
            for (std::size_t place = 0; place < good.size(); ++place) {
                texts.push_back(good);
                texts.back()[place] = bad;
            }
        }
    }
    for (std::string const& text : texts) {
        EXPECT_THROW(Uuid{text}, std::invalid_argument) << text;
    }
}

TEST(AUuidFromText, IsRefusedWhenItWouldPrintBackOtherwise) {
    std::string const letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    int accepted = 0;
    for (char const last : letters) {
        std::string const text = std::string(21, 'A') + last;
        try {
            EXPECT_EQ(Uuid(text).base64URL(), text);
            ++accepted;
        } catch (std::invalid_argument const&) {
        }
    }
    EXPECT_EQ(accepted, 4); // two bits of the last character count
}

} // namespace
