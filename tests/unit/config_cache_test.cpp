// The configuration library's per-process cache of whole objects and
// instance counts, and the copy-free visit of an object's records: what a
// long-lived responder reads must follow every change, its own and other
// processes', and a visit must show exactly what QM_DAT_getobjdata gives.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "qm_config.h"
#include "test_support.h"

namespace {

using Record = std::tuple<std::string, std::string, int>;

std::vector<Record> records_of(const char *object) {
    QM_DAT_record *records = QM_DAT_getobjdata(object, 0);
    std::vector<Record> out;
    for (QM_DAT_record *r = records; r != nullptr; r = r->next) out.emplace_back(r->name, r->value, r->type);
    QM_DAT_freedata(&records);
    return out;
}

std::vector<Record> visited(const char *object, int &code, std::size_t stop_after = 0) {
    struct Sink {
        std::vector<Record> out;
        std::size_t stop_after;
    } sink{{}, stop_after};
    code = QM_DAT_visitobjdata(
        object,
        [](void *context, const QM_DAT_view *r) -> int {
            auto &s = *static_cast<Sink *>(context);
            s.out.emplace_back(std::string(r->name, r->name_len), std::string(r->value, r->value_len), r->type);
            return s.out.size() == s.stop_after ? 1 : 0;
        },
        &sink);
    return sink.out;
}

using test_support::owned_text;
std::string count_of(const char *object) { return owned_text(QM_DAT_getobjcount(object)); }
std::string hostname() { return owned_text(QM_DAT_getobjproperty("Device", "Hostname")); }

using test_support::in_other_process;

class ConfigCacheTest : public test_support::GatewayRoot {};

TEST_F(ConfigCacheTest, VisitShowsWhatGetobjdataGives) {
    for (const char *object : {"User", "User_2", "User_1_Password", "User_*[Enable=1]", "Device", "HttpServer_*"}) {
        for (int pass = 0; pass < 2; ++pass) {  // the second pass answers from the cache
            int code = -1;
            const std::vector<Record> seen = visited(object, code);
            EXPECT_EQ(code, 0) << object;
            EXPECT_EQ(seen, records_of(object)) << object;
            EXPECT_FALSE(seen.empty()) << object;
        }
    }
    const std::pair<const char *, int> failing[] = {
        {"User_4", QM_ERR_NOTHING}, {"Nope", QM_ERR_UNKNOWN_OBJECT}, {"User_*[Enable=1", QM_ERR_BAD_VALUE}};
    for (const auto &[object, expected] : failing) {
        int code = 0;
        EXPECT_TRUE(visited(object, code).empty()) << object;
        EXPECT_EQ(code, expected) << object;
        EXPECT_EQ(QM_err_get(), code) << object;
        EXPECT_EQ(QM_DAT_getobjdata(object, 0), nullptr);
        EXPECT_EQ(QM_err_get(), code) << object;
    }
    int code = -1;
    EXPECT_EQ(visited("User", code, 2).size(), 2u);  // a visitor may stop the walk
    EXPECT_EQ(code, 0);
}

// A hold shows what a visit shows, and keeps it while the library forgets
// it: the cache is dropped by a change, the records are read again.
TEST_F(ConfigCacheTest, HeldRecordsOutliveTheCache) {
    const QM_DAT_view *views = nullptr;
    std::size_t count = 0;
    QM_DAT_hold *hold = nullptr;
    ASSERT_EQ(QM_DAT_holdobjdata("User", &views, &count, &hold), 0);
    ASSERT_NE(hold, nullptr);
    std::vector<Record> held;
    for (std::size_t i = 0; i < count; ++i) held.emplace_back(views[i].name, views[i].value, views[i].type);
    EXPECT_EQ(held, records_of("User"));

    ASSERT_EQ(QM_DAT_setobjproperty("User_2", "Username", "renamed", 0), 0);
    EXPECT_NE(records_of("User"), held);  // read again, into new records
    std::vector<Record> still;
    for (std::size_t i = 0; i < count; ++i) {
        EXPECT_EQ(std::strlen(views[i].name), views[i].name_len);
        still.emplace_back(std::string(views[i].name, views[i].name_len), std::string(views[i].value, views[i].value_len),
                           views[i].type);
    }
    EXPECT_EQ(still, held);
    QM_DAT_releaseobjdata(hold);
    QM_DAT_releaseobjdata(nullptr);

    // Released holds are used again: more at once than are kept spare, each
    // showing its own object's records until it is released.
    const auto records_held = [](const QM_DAT_view *v, std::size_t n) {
        std::vector<Record> out;
        for (std::size_t i = 0; i < n; ++i) out.emplace_back(v[i].name, v[i].value, v[i].type);
        return out;
    };
    struct Held { const char *object; const QM_DAT_view *views; std::size_t count; QM_DAT_hold *hold; };
    for (int pass = 0; pass < 2; ++pass) {
        std::vector<Held> holds;
        for (int i = 0; i < 12; ++i) {
            const char *object = i % 2 == 0 ? "User" : "User_2";
            ASSERT_EQ(QM_DAT_holdobjdata(object, &views, &count, &hold), 0);
            holds.push_back({object, views, count, hold});
        }
        for (const Held &h : holds) {
            EXPECT_EQ(records_held(h.views, h.count), records_of(h.object)) << h.object;
            QM_DAT_releaseobjdata(h.hold);
        }
    }

    const int code = QM_DAT_holdobjdata("Nope", &views, &count, &hold);
    EXPECT_NE(code, 0);
    EXPECT_EQ(QM_err_get(), code);
    EXPECT_EQ(views, nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(hold, nullptr);
}

// A change of this process to a property: HeldRecordsOutliveTheCache.
TEST_F(ConfigCacheTest, CachedReadsFollowEveryChange) {
    const std::vector<Record> before = records_of("User");
    ASSERT_EQ(QM_DAT_createobject("User_7", 0), 0);
    EXPECT_EQ(count_of("User"), "1,2,3,7");
    EXPECT_EQ(records_of("User").size(), before.size() + 5);

    // Another process: the shared change counter moves; whole objects, counts
    // and single values are read again.
    in_other_process([] { return QM_DAT_deleteobject("User_1", 0); });
    EXPECT_EQ(count_of("User"), "2,3,7");
    EXPECT_EQ(records_of("User").size(), before.size());
    EXPECT_EQ(hostname(), "gateway");
    in_other_process([] {
        return QM_DAT_setobjproperty("User_3", "Username", "elsewhere", 0) |
               QM_DAT_setobjproperty("Device", "Hostname", "from-child", 0);
    });
    int code = -1;
    const std::vector<Record> last = visited("User", code);
    EXPECT_NE(std::find(last.begin(), last.end(), Record{"User_3_Username", "elsewhere", QM_TYPE_STRING}),
              last.end());
    EXPECT_EQ(hostname(), "from-child");
}

}  // namespace
