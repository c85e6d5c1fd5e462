// A randomized model test: thousands of posts, edits, in-place changes,
// deletes and seeks against plain vectors that insert at the lower bound,
// which is what the pointer lists of the keys did.  Catches mistakes of the
// blocked order (splits, merges, the position cache) and of the post rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "test_recarr_util.h"

using namespace recarrtest;

namespace {

struct Row {
    int32_t seq, k, u;
    std::string name;
};

int Sign(int64_t d) { return d < 0 ? -1 : (d > 0 ? 1 : 0); }

std::string Fold(std::string s) {
    for (auto& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

// Keys: 0 "k"; 1 "u" Unique; 2 "name;k" Descending CaseInsensitive;
// 3 no fields; 4 "k" NonMaintained; 5 "seq" Unique.
constexpr int kKeys = 6;
int Compare(int key, const Row& a, const Row& b) {
    switch (key) {
        case 0: case 4: return Sign(int64_t{a.k} - b.k);
        case 1: return Sign(int64_t{a.u} - b.u);
        case 2: {
            const int c = Sign(Fold(a.name).compare(Fold(b.name)));
            return -(c ? c : Sign(int64_t{a.k} - b.k));
        }
        case 5: return Sign(int64_t{a.seq} - b.seq);
        default: return 0;
    }
}

struct Model {
    std::vector<Row> rows;              // by seq, deleted ones too
    std::vector<int32_t> order[kKeys];  // seqs in key order; order[5] lists the members by seq

    size_t Size() const { return order[5].size(); }
    const Row& At(int32_t seq) const { return rows[static_cast<size_t>(seq)]; }
    // The vectors of maintained keys are sorted: binary search for the
    // first member not less than r.
    int LowerBound(int key, const Row& r) const {
        const auto& o = order[key];
        return static_cast<int>(std::partition_point(o.begin(), o.end(), [&](int32_t seq) {
                                    return Compare(key, At(seq), r) < 0;
                                }) - o.begin());
    }
    int IndexOf(int key, int32_t seq) const {
        return static_cast<int>(std::find(order[key].begin(), order[key].end(), seq) - order[key].begin());
    }
    // Whether a member other than `except` holds r.u (key 1 lets one at most).
    bool UniqueTaken(const Row& r, int32_t except) const {
        const size_t at = static_cast<size_t>(LowerBound(1, r));
        return at < Size() && At(order[1][at]).u == r.u && order[1][at] != except;
    }
    void Insert(const Row& r) {
        rows.push_back(r);  // seqs are handed out in order
        for (int key = 0; key < kKeys; ++key) {
            const int at = key == 3 || key == 4 ? static_cast<int>(order[key].size()) : LowerBound(key, r);
            order[key].insert(order[key].begin() + at, r.seq);
        }
    }
};

const char* const kNames[] = {"ab", "AB", "Ab", "b", "B", "abc", "", "zz"};

KWRData* Member(KWArray* a, int32_t seq) {
    KWRVal cell = I4(seq);
    return KWARecSeekV(a, 5, &cell, nullptr);
}

// The seek branch of the test checks positions against the model between
// these full comparisons.
void CheckOrders(KWArray* a, const Model& m) {
    for (int key = 0; key < kKeys; ++key) {
        std::vector<int64_t> expected(m.order[key].begin(), m.order[key].end());
        ASSERT_EQ(Ints(a, key, "seq"), expected) << "key " << key;
    }
}

}  // namespace

TEST(recarr_Model, RandomOperationsMatchVectors) {
    Array a({Field("seq", iFldType_Int32), Field("k", iFldType_Int32), Field("u", iFldType_Int32),
             Field("name", iFldType_Char, 8)},
            {Key("k"), Key("u", iKeyOpt_Unique), Key("name;k", iKeyOpt_Descending | iKeyOpt_CaseInsensitive),
             Key(""), Key("k", iKeyOpt_NonMaintained), Key("seq", iKeyOpt_Unique)});
    Model m;
    std::mt19937 rng(20240);
    auto randomRow = [&] {
        return Row{static_cast<int32_t>(m.rows.size()), static_cast<int32_t>(rng() % 300),
                   static_cast<int32_t>(rng() % 40000), kNames[rng() % 8]};
    };
    auto randomSeq = [&] { return m.order[5][rng() % m.Size()]; };

    constexpr int kSteps = 24000;
    for (int step = 0; step < kSteps; ++step) {
        if (step == kSteps / 2) {  // later adds go to shared blocks
            ASSERT_EQ(KWAPackForRead(a), 0);
        }
        // The last quarter mostly deletes, so that blocks thin out and merge.
        unsigned op = step > kSteps * 3 / 4 ? (rng() % 10 < 7 ? 1 : rng() % 5) : rng() % 10;
        // A stretch without deletes keeps the shared blocks in use for a while.
        if (op == 1 && step >= kSteps / 2 && step < kSteps / 2 + 2000) op = 0;
        if (op == 0 || op >= 5 || m.Size() < 10) {  // add
            const Row r = randomRow();
            const bool taken = m.UniqueTaken(r, -1);
            KWRData* added = Add(a, {I4(r.seq), I4(r.k), I4(r.u), Text(r.name.c_str())});
            ASSERT_EQ(added == nullptr, taken) << "step " << step;
            if (!taken) m.Insert(r);
        } else if (op == 1) {  // delete
            const int32_t seq = randomSeq();
            ASSERT_EQ(KWARecDel(Member(a, seq)), 0);
            for (auto& o : m.order) o.erase(std::find(o.begin(), o.end(), seq));
        } else if (op == 2 || op == 3) {  // post a working copy, or a change in place
            const int32_t seq = randomSeq();
            KWRData* member = Member(a, seq);
            ASSERT_NE(member, nullptr);
            Row after = m.At(seq);
            const unsigned what = rng() % 4;  // k, u, name, k and u
            const bool setK = what == 0 || what == 3, setU = what == 1 || what == 3, inPlace = op == 3;
            KWRData* target = inPlace ? member : KWARecEdit(member);
            if (setK) KWRSetAsInt32(a.F("k"), target, after.k = static_cast<int32_t>(rng() % 300));
            if (setU) KWRSetAsInt32(a.F("u"), target, after.u = static_cast<int32_t>(rng() % 40000));
            if (what == 2) {
                after.name = kNames[rng() % 8];
                KWRSetAsText(a.F("name"), target, static_cast<int32_t>(after.name.size()), after.name.c_str());
            }
            const bool taken = setU && m.UniqueTaken(after, seq);
            // Keep the model simple: undo before posting in place.
            if (inPlace && taken) KWRSetAsInt32(a.F("u"), target, after.u = m.At(seq).u);
            KWRData* out = nullptr;
            const int32_t rc = KWARecPost(target, &out);
            if (!inPlace && taken) {
                ASSERT_EQ(rc, -8) << "step " << step;
                KWARecDel(target);
                continue;
            }
            ASSERT_EQ(rc, 0) << "step " << step;
            ASSERT_EQ(out, member);
            // Keys 0..2 move when one of their fields was set; the place of
            // a working copy is sought with the member still in place.
            for (int key : {0, 1, 2}) {
                if (key == 0 ? !setK : key == 1 ? !setU : what == 1) continue;
                auto& o = m.order[key];
                const int from = m.IndexOf(key, seq), to = m.LowerBound(key, after);
                o.erase(o.begin() + from);
                o.insert(o.begin() + (inPlace ? m.LowerBound(key, after) : to > from ? to - 1 : to), seq);
            }
            m.rows[static_cast<size_t>(seq)] = after;
        } else {  // seeks and positions
            for (int key : {0, 1, 2}) {
                Row probe = randomRow();
                KWRVal cells[2] = {key == 2 ? Text(probe.name.c_str()) : I4(key == 0 ? probe.k : probe.u), I4(probe.k)};
                int32_t pos = -1;
                KWRData* found = KWARecSeekV(a, key, cells, &pos);
                const size_t expect = static_cast<size_t>(m.LowerBound(key, probe));
                const bool equal = expect < m.Size() && Compare(key, m.At(m.order[key][expect]), probe) == 0;
                ASSERT_EQ(found != nullptr, equal) << "step " << step << " key " << key;
                ASSERT_EQ(pos, static_cast<int32_t>(expect)) << "step " << step << " key " << key;
            }
            const int32_t seq = randomSeq();
            for (int key = 0; key < kKeys; ++key)
                ASSERT_EQ(KWARecIdx(a, key, Member(a, seq)), m.IndexOf(key, seq)) << "key " << key;
        }
        if (step % 2000 == 1999) CheckOrders(a, m);
        if (HasFatalFailure()) return;
    }
    CheckOrders(a, m);
    EXPECT_EQ(KWARecCount(a), static_cast<int32_t>(m.Size()));
}
