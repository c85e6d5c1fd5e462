// The XML node pool under several threads: each thread cuts its blocks from
// slabs of its own, and a tree may be freed, edited or read back on another
// thread.  Run under ThreadSanitizer by the test command.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "test_xml_dump.h"

namespace {

using xmltest::Xml;

std::string Document(int thread, int round) {
    std::string text = "<list t=\"" + std::to_string(thread) + "\">";
    for (int i = 0; i < 200; ++i)
        text += "<item n=\"" + std::to_string(i) + "\">v" + std::to_string(round * 1000 + i) +
                " &amp; w</item>";
    return text + "</list>";
}

// Producers parse documents and hand the trees over; consumers check, edit
// and free them, so that blocks cut on one thread go back on another.
TEST(xml_pool, TreesMadeOnOneThreadAreFreedOnAnother) {
    constexpr int kProducers = 3, kRounds = 40;
    std::mutex mutex;
    std::vector<std::pair<_tagXMLNode*, std::string>> handed;
    std::atomic<int> producing{kProducers}, failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kProducers; ++t)
        threads.emplace_back([&, t] {
            for (int r = 0; r < kRounds; ++r) {
                std::string text = Document(t, r);
                _tagXMLNode* doc = KWXmlNew(KWXML_DOCUMENT);
                if (!doc || KWXmlSetXml(doc, text.c_str(), nullptr) != 0) ++failures;
                std::lock_guard<std::mutex> lock(mutex);
                handed.emplace_back(doc, std::move(text));
            }
            --producing;
        });
    for (int c = 0; c < 2; ++c)
        threads.emplace_back([&] {
            for (;;) {
                std::pair<_tagXMLNode*, std::string> item{nullptr, {}};
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    if (!handed.empty()) {
                        item = std::move(handed.back());
                        handed.pop_back();
                    }
                }
                if (!item.first) {
                    if (producing == 0) {
                        std::lock_guard<std::mutex> lock(mutex);
                        if (handed.empty()) return;
                    }
                    std::this_thread::yield();
                    continue;
                }
                if (Xml(item.first) != item.second) ++failures;
                _tagXMLNode* list = KWXmlNodeGetN(item.first, 0);
                if (KWXmlSetName(list, "renamed-on-another-thread") != 0) ++failures;
                KWXmlFree(item.first);
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_TRUE(handed.empty());
}

}  // namespace
