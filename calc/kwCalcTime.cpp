// The time built-ins.  A time value is an Int of milliseconds since
// 1970-01-01 UTC; parts are read in local time unless named otherwise.
#include <cstring>
#include <ctime>

#include "calc/kwCalcEngine.h"
#include "calc/kwCalcVar.h"

namespace kwz::calc {
namespace {

int32_t Millis(CVar* v, int64_t* out) {
    if (v->type == kInt) {
        *out = v->v.i;
        return kOk;
    }
    if (v->type == kDbl && v->v.d > -9.2e18 && v->v.d < 9.2e18) {
        *out = int64_t(v->v.d);
        return kOk;
    }
    return kNotSupported;
}

// Seconds and the millisecond part, flooring toward the past.
void Split(int64_t t, time_t* sec, int64_t* ms) {
    int64_t s = t / 1000, m = t % 1000;
    if (m < 0) {
        m += 1000;
        s -= 1;
    }
    *sec = time_t(s);
    *ms = m;
}

bool Broken(int64_t t, bool local, std::tm* tm, int64_t* ms) {
    time_t sec;
    Split(t, &sec, ms);
    return local ? localtime_r(&sec, tm) != nullptr : gmtime_r(&sec, tm) != nullptr;
}

int32_t Parts(CVar* v, const std::tm& tm, int64_t ms) {
    const int64_t parts[7] = {tm.tm_year + 1900LL, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
                              tm.tm_min, tm.tm_sec, ms};
    CVar r{};
    if (SetArr(&r, 7) != kOk) return kNoMem;
    for (int i = 0; i < 7; ++i) SetInt(&r.v.a[i], parts[i]);
    Move(v, &r);
    return kOk;
}

// Local parts (missing ones: month and day 1, the rest 0) to a time value.
int32_t Make(CVar* out, const int64_t* p, int32_t n) {
    std::tm tm{};
    int64_t v[7] = {1970, 1, 1, 0, 0, 0, 0};
    for (int32_t i = 0; i < n && i < 7; ++i) v[i] = p[i];
    for (int i = 0; i < 6; ++i)
        if (v[i] < -100000000 || v[i] > 100000000) return kBadIndex;
    tm.tm_year = int(v[0] - 1900);
    tm.tm_mon = int(v[1] - 1);
    tm.tm_mday = int(v[2]);
    tm.tm_hour = int(v[3]);
    tm.tm_min = int(v[4]);
    tm.tm_sec = int(v[5]);
    tm.tm_isdst = -1;
    const time_t sec = std::mktime(&tm);
    if (sec == time_t(-1) && !(tm.tm_year == 69 && tm.tm_mon == 11 && tm.tm_mday == 31)) return kBadIndex;
    if (v[6] < -1000000000 || v[6] > 1000000000) return kBadIndex;
    SetInt(out, int64_t(sec) * 1000 + v[6]);
    return kOk;
}

int32_t IntArg(const CVar* v, int64_t* out) {
    if (v->type == kInt) *out = v->v.i;
    else if (v->type == kDbl && v->v.d > -9.2e18 && v->v.d < 9.2e18) *out = int64_t(v->v.d);
    else return kNotSupported;
    return kOk;
}

}  // namespace

int32_t TimeBuiltin(int32_t code, CVar* a) {
    int64_t t = 0, ms = 0;
    std::tm tm{};
    if (code == 173 || code == 174) {
        int64_t p[7];
        int32_t n = 7;
        const CVar* src = a;
        if (code == 174) {
            if (a->type != kArr) return kNotSupported;
            n = a->count < 7 ? a->count : 7;
            src = a->v.a;
        }
        for (int32_t i = 0; i < n; ++i)
            if (IntArg(&src[i], &p[i]) != kOk) return kNotSupported;
        CVar r{};
        if (const int32_t st = Make(&r, p, n); st != kOk) return st;
        Move(a, &r);
        return kOk;
    }
    if (Millis(a, &t) != kOk) return kNotSupported;
    if (!Broken(t, code != 172, &tm, &ms)) return kBadIndex;
    switch (code) {
    case 161: SetInt(a, ms); return kOk;
    case 162: SetInt(a, tm.tm_sec); return kOk;
    case 163: SetInt(a, tm.tm_min); return kOk;
    case 164: SetInt(a, tm.tm_hour); return kOk;
    case 165: SetInt(a, tm.tm_mday); return kOk;
    case 166: SetInt(a, tm.tm_mon + 1); return kOk;
    case 167: SetInt(a, tm.tm_year + 1900LL); return kOk;
    case 168: SetInt(a, tm.tm_wday); return kOk;
    case 169: SetInt(a, tm.tm_yday); return kOk;
    case 170: SetInt(a, tm.tm_isdst > 0 ? 1 : 0); return kOk;
    case 171:
    case 172: return Parts(a, tm, ms);
    case 175: {
        if (a[1].type != kStr) return kNotSupported;
        char buf[512];
        const size_t n = a[1].count > 0 ? std::strftime(buf, sizeof buf, a[1].v.s, &tm) : 0;
        CVar r{};
        if (SetStr(&r, buf, int32_t(n)) != kOk) return kNoMem;
        Move(a, &r);
        return kOk;
    }
    default: return kNotSupported;
    }
}

}  // namespace kwz::calc
