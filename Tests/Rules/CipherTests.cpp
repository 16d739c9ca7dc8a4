#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>

#include "Rules/NSData_Cipher.h"
#include "RunLoop/VirtualRunLoop.h"

namespace {

qv::Data bytesOfLength(std::size_t length, std::uint32_t seed) {
    std::mt19937 generator(seed);
    qv::Data data(length);
    for (auto& byte : data) {
        byte = static_cast<std::uint8_t>(generator());
    }
    return data;
}

// The last four bytes of the plaintext block before the trailer block, in the ciphertext that
// precedes the trailer block: flipping bits there flips the same bits of the deciphered trailer
// (CBC), so a test can make a file lie about its length without knowing the key.
void rewriteTrailerLength(qv::Data& file, std::uint32_t oldLength, std::uint32_t newLength) {
    const std::size_t previousBlockEnd = file.size() - kCipherBlockSize;
    const std::uint32_t flip = oldLength ^ newLength;
    for (std::size_t i = 0; i < 4; ++i) {
        file[previousBlockEnd - 1 - i] ^= static_cast<std::uint8_t>(flip >> (8 * i));
    }
}

TEST(CipherTests, RoundTripsKeepBytesAndFileSizes) {
    const std::pair<std::size_t, std::size_t> lengthsAndSizes[] = {
        {0, 48}, {1, 48}, {15, 48}, {16, 64}, {17, 64}, {31, 64}, {32, 80}, {1000, 1040}};
    for (const auto& [length, size] : lengthsAndSizes) {
        qv::Data plain = bytesOfLength(length, static_cast<std::uint32_t>(length));
        qv::Data file = dataEncryptedWithPass(plain, "FrimbleJonks");
        EXPECT_EQ(file.size(), size) << "length " << length;
        EXPECT_EQ(encipheredSizeForLength(length), size);
        auto back = dataDecryptedWithPass(file, "FrimbleJonks");
        ASSERT_TRUE(back.has_value()) << "length " << length;
        EXPECT_EQ(*back, plain) << "length " << length;
    }

    std::mt19937 generator(7);
    std::uniform_int_distribution<std::size_t> lengths(0, 5000);
    for (int round = 0; round < 50; ++round) {
        qv::Data plain = bytesOfLength(lengths(generator), static_cast<std::uint32_t>(round));
        qv::Data file = dataEncryptedWithPass(plain, "another pass phrase \xc3\xa4");
        EXPECT_EQ(file.size(), encipheredSizeForLength(plain.size()));
        auto back = dataDecryptedWithPass(file, "another pass phrase \xc3\xa4");
        ASSERT_TRUE(back.has_value());
        EXPECT_EQ(*back, plain);
    }
}

TEST(CipherTests, WrongPassPhraseOrPlainTextFailsTheZeroTest) {
    qv::Data plain = bytesOfLength(300, 1);
    qv::Data file = dataEncryptedWithPass(plain, "FrimbleJonks");
    EXPECT_FALSE(dataDecryptedWithPass(file, "FrimbleJonkz").has_value());
    EXPECT_FALSE(dataDecryptedWithPass(file, "").has_value());

    // A plain rules file of whole blocks is deciphered on trial and must fail the test.
    std::string xml(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<array/>\n"
        "</plist>\n    ");
    xml.resize(96, ' ');
    EXPECT_FALSE(dataDecryptedWithPass(qv::Data(xml.begin(), xml.end()), "FrimbleJonks"));

    // A flipped bit in the trailer block garbles the whole block.
    qv::Data damaged = file;
    damaged.back() ^= 0x01;
    EXPECT_FALSE(dataDecryptedWithPass(damaged, "FrimbleJonks").has_value());
}

TEST(CipherTests, MalformedInputsAreRejectedInsideTheBuffers) {
    // Too short or not whole blocks. Each buffer is exactly its size, so a read past it shows in
    // the sanitizer build.
    for (std::size_t length : {0, 1, 15, 16, 17, 31, 33, 40, 47, 49, 63, 1039}) {
        qv::Data input = bytesOfLength(length, static_cast<std::uint32_t>(length));
        EXPECT_FALSE(dataDecryptedWithPass(input, "FrimbleJonks").has_value()) << length;
    }
    // One block after the vector is read; it only passes with twelve zeros and a length of 0.
    EXPECT_FALSE(dataDecryptedWithPass(bytesOfLength(32, 3), "FrimbleJonks").has_value());

    // Trailer lengths: the deciphered size less the trailer block is the most a file may claim.
    qv::Data plain = bytesOfLength(20, 9);  // 48 deciphered bytes, at most 32 of data
    qv::Data file = dataEncryptedWithPass(plain, "FrimbleJonks");
    qv::Data atLimit = file;
    rewriteTrailerLength(atLimit, 20, 32);
    auto limited = dataDecryptedWithPass(atLimit, "FrimbleJonks");
    ASSERT_TRUE(limited.has_value());
    EXPECT_EQ(limited->size(), 32u);
    for (std::uint32_t lie : {33u, 48u, 64u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        qv::Data lying = file;
        rewriteTrailerLength(lying, 20, lie);
        EXPECT_FALSE(dataDecryptedWithPass(lying, "FrimbleJonks").has_value()) << lie;
    }
}

TEST(CipherTests, VectorComesFromTheCGeneratorSeededWithTimeAndAddress) {
    // 2026-10-30 00:00:00 UTC on the virtual clock: 1793318400 in Unix seconds.
    auto loop = std::make_shared<qv::VirtualRunLoop>(qv::Date{815011200.0});
    auto previous = qv::RunLoop::currentShared();
    qv::RunLoop::setCurrent(loop);

    qv::Data plain = bytesOfLength(40, 2);
    const auto address = reinterpret_cast<std::uintptr_t>(&plain);
    const unsigned int seed = 1793318400u + static_cast<unsigned int>(address & 0xABCDE);
    EXPECT_EQ(startRandom(plain), seed);

    qv::Data file = dataEncryptedWithPass(plain, "FrimbleJonks");
    std::srand(seed);
    for (std::size_t i = 0; i < kCipherBlockSize; ++i) {
        EXPECT_EQ(file[i], static_cast<std::uint8_t>(std::rand() & 0xFF)) << "vector byte " << i;
    }
    // Same second, same buffer: the same vector (the accepted weakness); a second later another.
    auto vectorOf = [](const qv::Data& enciphered) {
        return qv::Data(enciphered.begin(), enciphered.begin() + kCipherBlockSize);
    };
    EXPECT_EQ(vectorOf(file), vectorOf(dataEncryptedWithPass(plain, "x")));
    loop->runFor(1.0);
    qv::Data later = dataEncryptedWithPass(plain, "FrimbleJonks");
    EXPECT_NE(vectorOf(file), vectorOf(later));

    qv::RunLoop::setCurrent(previous);
}

}  // namespace
