// `qvdevice simulate` writes each line as it happens and keeps nothing: weeks of virtual polling,
// or a stick that switches into itself without end, run in memory that does not grow with the
// story. Measured as heap in use while the lines are written, not as time.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <fstream>
#include <streambuf>
#include <string>

#include "Support/ToolRunner.h"
#include "qvdevice/CommandLine.h"

namespace {

std::size_t heapInUse() {
    return mallinfo2().uordblks;
}

// Counts the lines written and notes the most heap in use while they arrive; keeps no text.
class MeasuringBuffer : public std::streambuf {
  public:
    explicit MeasuringBuffer(std::size_t baseline) : baseline_(baseline) {}
    std::size_t lines = 0;
    std::size_t mostGrowth = 0;

  protected:
    int overflow(int c) override {
        if (c == '\n') {
            noteLine();
        }
        return c == traits_type::eof() ? 0 : c;
    }
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        for (std::streamsize i = 0; i < count; ++i) {
            if (text[i] == '\n') {
                noteLine();
            }
        }
        return count;
    }

  private:
    void noteLine() {
        if (++lines % 1000 == 0) {
            const std::size_t now = heapInUse();
            mostGrowth = std::max(mostGrowth, now > baseline_ ? now - baseline_ : 0);
        }
    }
    std::size_t baseline_;
};

struct Measured {
    int code = -1;
    std::size_t lines = 0;
    std::size_t mostGrowth = 0;
    std::string err;
};

Measured simulateMeasuring(const std::string& scenario, const std::string& until) {
    std::vector<std::string> arguments = {"qvdevice", "simulate", scenario,
                                          "--json",   "--until",  until};
    std::vector<char*> argv;
    for (auto& argument : arguments) {
        argv.push_back(argument.data());
    }
    MeasuringBuffer buffer(heapInUse());
    std::ostream out(&buffer);
    std::ostringstream err;
    Measured measured;
    measured.code = qvdevice::run(static_cast<int>(argv.size()), argv.data(), out, err);
    measured.lines = buffer.lines;
    measured.mostGrowth = buffer.mostGrowth;
    measured.err = err.str();
    return measured;
}

// Kept events would cost several megabytes per thousand polls; the lines pass through.
constexpr std::size_t kFlatBytes = 8u << 20;

TEST(SimulationStreaming, LongAndLoopingStoriesRunInFlatMemory) {
    if (heapInUse() == 0) {
        GTEST_SKIP() << "the allocator in use does not report the heap (a sanitizer build)";
    }
    // More than a day of virtual time: the default device is polled every few seconds.
    Measured polling =
        simulateMeasuring(std::string(QV_SOURCE_DIR) + "/Examples/generic-huawei.json", "100000");
    ASSERT_EQ(polling.code, 0) << polling.err;
    EXPECT_GT(polling.lines, 50000u);
    EXPECT_LT(polling.mostGrowth, kFlatBytes) << polling.lines << " lines";

    // A stick whose mode switch brings back the storage-mode stick: it switches without end.
    std::ifstream example(std::string(QV_SOURCE_DIR) + "/Examples/huawei-storage-mode-switch.json");
    std::string text((std::istreambuf_iterator<char>(example)), std::istreambuf_iterator<char>());
    const std::string switched = "\"idProduct\": 5126";
    ASSERT_NE(text.find(switched), std::string::npos);
    text.replace(text.find(switched), switched.size(), "\"idProduct\": 7957");
    const std::string path = ::testing::TempDir() + "/switches-into-itself.json";
    std::ofstream(path) << text;
    Measured looping = simulateMeasuring(path, "200000");
    ASSERT_EQ(looping.code, 0) << looping.err;
    EXPECT_GT(looping.lines, 50000u);
    EXPECT_LT(looping.mostGrowth, kFlatBytes) << looping.lines << " lines";
}

}  // namespace
