#include "AdtsDecoder.h"
#include "app/capture/ADTSAACEncoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <numbers>

using namespace kavelo;
using namespace kavelo::testing;

namespace {
std::vector<float> sine(double frequency, double seconds, float amplitude = 0.5f) {
    std::vector<float> samples(static_cast<std::size_t>(seconds * 48000));
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = amplitude * float(std::sin(2 * std::numbers::pi * frequency * double(i) / 48000));
    }
    return samples;
}

// White noise from a fixed seed: every band busy, so the encoder spends its whole bit budget.
std::vector<float> noise(double seconds) {
    std::vector<float> samples(static_cast<std::size_t>(seconds * 48000));
    std::uint32_t x = 2463534242u;
    for (auto& s : samples) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        s = 0.3f * (float(x) / 4294967296.0f * 2.0f - 1.0f);
    }
    return samples;
}

Bytes encodeInPieces(const std::vector<float>& samples, std::size_t piece, int* calls = nullptr) {
    ADTSAACEncoder encoder;
    EXPECT_TRUE(encoder.isReady());
    Bytes stream;
    encoder.setOnEncodedData([&](const Bytes& data) {
        EXPECT_FALSE(splitAdtsFrames(data).empty()) << "each call must carry whole frames";
        stream.insert(stream.end(), data.begin(), data.end());
        if (calls) {
            ++*calls;
        }
    });
    for (std::size_t at = 0; at < samples.size(); at += piece) {
        encoder.encode(samples.data() + at, std::min(piece, samples.size() - at));
    }
    return stream;
}
} // namespace

TEST(ADTSAACEncoderTest, HeaderBytesCarryTheFrameLength) {
    using H = ADTSAACEncoder::Header;
    EXPECT_EQ(ADTSAACEncoder::adtsHeader(0), (H{0xFF, 0xF1, 0x4C, 0x40, 0x00, 0xFF, 0xFC}));
    EXPECT_EQ(ADTSAACEncoder::adtsHeader(1), (H{0xFF, 0xF1, 0x4C, 0x40, 0x01, 0x1F, 0xFC}));
    EXPECT_EQ(ADTSAACEncoder::adtsHeader(300), (H{0xFF, 0xF1, 0x4C, 0x40, 0x26, 0x7F, 0xFC}));
    // 2041 + 7 = 2048: bit 11 of the length lands in byte 3.
    EXPECT_EQ(ADTSAACEncoder::adtsHeader(2041), (H{0xFF, 0xF1, 0x4C, 0x41, 0x00, 0x1F, 0xFC}));
}

TEST(ADTSAACEncoderTest, ASineSurvivesEncodingAndDecodesAsAacLcAt48kMono) {
    auto input = sine(880, 3.0);
    int calls = 0;
    // Odd piece sizes: the encoder must gather exactly 1024 samples per frame across calls.
    auto stream = encodeInPieces(input, 700, &calls);
    ASSERT_GT(calls, 0);
    auto frames = splitAdtsFrames(stream);
    ASSERT_FALSE(frames.empty());
    // No flush: the frames cover the input less the encoder's tail, in 1024-sample packets.
    EXPECT_GE(frames.size(), input.size() / 1024 - 3);
    EXPECT_LE(frames.size(), input.size() / 1024);

    auto decoded = decodeAdts(stream);
    ASSERT_TRUE(decoded.ok);
    EXPECT_EQ(decoded.codec, "aac");
    EXPECT_EQ(decoded.sampleRate, 48000);
    EXPECT_EQ(decoded.channels, 1);
    EXPECT_NEAR(decoded.seconds(), 3.0, 0.1);
    EXPECT_NEAR(decoded.estimatedFrequency(), 880, 10);
    // A 0.5-amplitude sine has rms 0.354; AAC keeps it within a few percent.
    EXPECT_NEAR(decoded.rms(decoded.samples.size() / 4, decoded.samples.size() * 3 / 4), 0.354, 0.03);
    // 96 kbit/s is a ceiling, not a quota: a pure tone takes far less of it, noise about all of it.
    EXPECT_LT(double(stream.size()) * 8 / decoded.seconds() / 1000, 120);
    const double noiseKbps = double(encodeInPieces(noise(3.0), 1024).size()) * 8 / 3.0 / 1000;
    EXPECT_GT(noiseKbps, 80);
    EXPECT_LT(noiseKbps, 120);
}

TEST(ADTSAACEncoderTest, ACutAtAnyFrameBoundaryDecodesOnBothSides) {
    auto stream = encodeInPieces(sine(440, 2.0), 1024);
    auto frames = splitAdtsFrames(stream);
    ASSERT_GT(frames.size(), 40u);
    Bytes head, tail;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        auto& side = i < 37 ? head : tail;
        side.insert(side.end(), frames[i].begin(), frames[i].end());
    }
    auto first = decodeAdts(head);
    auto second = decodeAdts(tail);
    ASSERT_TRUE(first.ok);
    ASSERT_TRUE(second.ok);
    EXPECT_NEAR(second.estimatedFrequency(), 440, 10);
    EXPECT_GT(second.rms(), 0.2);
}

TEST(ADTSAACEncoderTest, OneFrameOfInputWaitsForTheNextBecauseOfPriming) {
    ADTSAACEncoder encoder;
    std::vector<Bytes> outputs;
    encoder.setOnEncodedData([&](const Bytes& data) { outputs.push_back(data); });
    auto input = sine(440, 1.0);
    encoder.encode(input.data(), 1024);
    EXPECT_TRUE(outputs.empty());
    encoder.encode(input.data() + 1024, 4096);
    ASSERT_FALSE(outputs.empty());
    EXPECT_EQ(outputs.front()[0], 0xFF);
}
