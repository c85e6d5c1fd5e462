// A randomized model test: thousands of posts, edits, in-place changes,
// deletes and seeks against plain vectors that insert at the lower bound,
// which is what the pointer lists of the keys did.  Catches mistakes of the
// blocked order (splits, merges, the position cache) and of the post rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
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
            int c = Sign(Fold(a.name).compare(Fold(b.name)));
            if (!c) c = Sign(int64_t{a.k} - b.k);
            return -c;
        }
        case 5: return Sign(int64_t{a.seq} - b.seq);
        default: return 0;
    }
}

class Model {
public:
    std::vector<Row> rows;          // by seq, deleted ones too
    std::map<int32_t, int> uses;    // u value -> members holding it
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
        const auto& o = order[key];
        return static_cast<int>(std::find(o.begin(), o.end(), seq) - o.begin());
    }
    bool UniqueTaken(int32_t u, int32_t except) const {
        auto it = uses.find(u);
        const int n = it == uses.end() ? 0 : it->second;
        return n > (except >= 0 && At(except).u == u ? 1 : 0);
    }
    void Insert(const Row& r) {
        for (int key = 0; key < kKeys; ++key) {
            const int at = key == 3 || key == 4 ? static_cast<int>(order[key].size()) : LowerBound(key, r);
            order[key].insert(order[key].begin() + at, r.seq);
        }
        rows.push_back(r);  // seqs are handed out in order
        ++uses[r.u];
    }
    void Erase(int32_t seq) {
        for (auto& o : order) o.erase(std::find(o.begin(), o.end(), seq));
        --uses[At(seq).u];
    }
    void Update(int32_t seq, const Row& after) {
        --uses[At(seq).u];
        ++uses[after.u];
        rows[static_cast<size_t>(seq)] = after;
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
    const KWRField* fk = a.F("k");
    const KWRField* fu = a.F("u");
    const KWRField* fname = a.F("name");
    Model m;
    std::mt19937 rng(20240);
    int32_t nextSeq = 0;
    auto randomRow = [&] {
        return Row{nextSeq, static_cast<int32_t>(rng() % 300), static_cast<int32_t>(rng() % 40000),
                   kNames[rng() % 8]};
    };
    auto randomSeq = [&] { return m.order[5][rng() % m.Size()]; };

    constexpr int kSteps = 24000;
    for (int step = 0; step < kSteps; ++step) {
        if (step == kSteps / 2) {
            ASSERT_EQ(KWAPackForRead(a), 0);  // later adds go to shared blocks
        }
        // The last quarter mostly deletes, so that blocks thin out and merge.
        unsigned op = step > kSteps * 3 / 4 ? (rng() % 10 < 7 ? 1 : rng() % 5) : rng() % 10;
        // A stretch without deletes keeps the shared blocks in use for a while.
        if (op == 1 && step >= kSteps / 2 && step < kSteps / 2 + 2000) op = 0;
        if ((op == 0 || op >= 5) || m.Size() < 10) {  // add
            const Row r = randomRow();
            const bool taken = m.UniqueTaken(r.u, -1);
            KWRData* added = Add(a, {I4(r.seq), I4(r.k), I4(r.u), Text(r.name.c_str())});
            ASSERT_EQ(added == nullptr, taken) << "step " << step;
            if (!taken) {
                m.Insert(r);
                ++nextSeq;
            }
        } else if (op == 1) {  // delete
            const int32_t seq = randomSeq();
            ASSERT_EQ(KWARecDel(Member(a, seq)), 0);
            m.Erase(seq);
        } else if (op == 2 || op == 3) {  // post a working copy, or a change in place
            const int32_t seq = randomSeq();
            KWRData* member = Member(a, seq);
            ASSERT_NE(member, nullptr);
            Row after = m.At(seq);
            const unsigned what = rng() % 4;
            const bool inPlace = op == 3;
            KWRData* target = inPlace ? member : KWARecEdit(member);
            if (what == 0 || what == 3) KWRSetAsInt32(fk, target, after.k = static_cast<int32_t>(rng() % 300));
            if (what == 1 || what == 3) KWRSetAsInt32(fu, target, after.u = static_cast<int32_t>(rng() % 40000));
            if (what == 2) {
                after.name = kNames[rng() % 8];
                KWRSetAsText(fname, target, static_cast<int32_t>(after.name.size()), after.name.c_str());
            }
            const bool taken = (what == 1 || what == 3) && m.UniqueTaken(after.u, seq);
            if (inPlace && taken) {  // keep the model simple: undo before posting
                KWRSetAsInt32(fu, target, m.At(seq).u);
                after.u = m.At(seq).u;
            }
            const bool edited[kKeys] = {what == 0 || what == 3, what == 1 || what == 3,
                                        what != 1, false, false, false};
            KWRData* out = nullptr;
            const int32_t rc = KWARecPost(target, &out);
            if (!inPlace && taken) {
                ASSERT_EQ(rc, -8) << "step " << step;
                KWARecDel(target);
                continue;
            }
            ASSERT_EQ(rc, 0) << "step " << step;
            ASSERT_EQ(out, member);
            for (int key = 0; key < kKeys; ++key) {
                if (!edited[key] || key == 3 || key == 4) continue;
                auto& o = m.order[key];
                const int from = m.IndexOf(key, seq);
                if (inPlace) {
                    o.erase(o.begin() + from);
                    o.insert(o.begin() + m.LowerBound(key, after), seq);
                } else {
                    // The position is sought with the member still in place.
                    const int to = m.LowerBound(key, after);
                    o.erase(o.begin() + from);
                    o.insert(o.begin() + (to > from ? to - 1 : to), seq);
                }
            }
            m.Update(seq, after);
        } else {  // seeks and positions
            for (int key : {0, 1, 2}) {
                Row probe = randomRow();
                KWRVal cells[2] = {key == 2 ? Text(probe.name.c_str()) : I4(key == 0 ? probe.k : probe.u), I4(probe.k)};
                int32_t pos = -1;
                KWRData* found = KWARecSeekV(a, key, cells, &pos);
                const int expect = m.LowerBound(key, probe);
                const bool equal = expect < static_cast<int>(m.order[key].size()) &&
                                   Compare(key, m.At(m.order[key][expect]), probe) == 0;
                ASSERT_EQ(found != nullptr, equal) << "step " << step << " key " << key;
                ASSERT_EQ(pos, expect) << "step " << step << " key " << key;
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
