// Small helpers shared by the test files.
#pragma once

#include <VomKwz.h>

#include <mutex>
#include <string>
#include <vector>

namespace kwztest {

struct LogLine { int32_t level; std::string tag, text; };

// Collects every log line while alive (threshold 5 unless given).  The lines
// live in one process-wide store that is never destroyed, so a worker thread
// that logs late, after the capture ended, still writes somewhere valid.
class LogCapture {
public:
    explicit LogCapture(int32_t level = 5) {
        Clear();
        previous_ = LogMessageSet(&LogCapture::Sink, level);
    }
    ~LogCapture() { LogMessageSet(previous_, 0); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> Lines() const {
        std::lock_guard<std::mutex> lock(Store().mutex);
        return Store().lines;
    }
    // True when some line has this tag and contains this text.
    bool Has(const std::string& tag, const std::string& text) const {
        for (const auto& l : Lines())
            if (l.tag == tag && l.text.find(text) != std::string::npos) return true;
        return false;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(Store().mutex);
        Store().lines.clear();
    }

private:
    struct LineStore { std::mutex mutex; std::vector<LogLine> lines; };
    static LineStore& Store() {
        static LineStore* store = new LineStore;  // never destroyed: see above
        return *store;
    }
    static void Sink(int32_t level, const char* tag, const char* text) {
        std::lock_guard<std::mutex> lock(Store().mutex);
        Store().lines.push_back({level, tag ? tag : "", text ? text : ""});
    }

    KWLogFn previous_ = nullptr;
};

}  // namespace kwztest
