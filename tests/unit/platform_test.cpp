// Host platform: the configuration library (names, storage, commit/revert,
// factory, lock, life cycle) and the web-auth library, each test in its own
// freshly initialised gateway root. Commit, revert, factory, load and dump
// are also driven through qmcfg by tests/integration/test_qmcfg.py.

#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>

#include "qm_util.h"
#include "qm_webauth.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;

using Text = quelm::MallocString;
using test_support::owned_text;
using test_support::slurp;

std::string value_of(const char *object, const char *property) {
    return owned_text(QM_DAT_getobjproperty(object, property));
}
std::string count_of(const char *object) { return owned_text(QM_DAT_getobjcount(object)); }

std::vector<std::string> record_names(const char *object) {
    QM_DAT_record *records = QM_DAT_getobjdata(object, 0);
    std::vector<std::string> names;
    for (QM_DAT_record *r = records; r != nullptr; r = r->next) names.push_back(r->name);
    QM_DAT_freedata(&records);
    EXPECT_EQ(records, nullptr);
    return names;
}
// The first record of each instance (five records per User).
std::vector<std::string> first_of_each_user(const char *object) {
    std::vector<std::string> all = record_names(object), firsts;
    EXPECT_EQ(all.size() % 5, 0u) << object;
    for (std::size_t i = 0; i < all.size(); i += 5) firsts.push_back(all[i]);
    return firsts;
}

class PlatformTest : public test_support::GatewayRoot {
protected:
    void SetUp() override {
        setenv("QUELM_LOCK_WAIT_MS", "200", 1);
        GatewayRoot::SetUp();
    }
    void TearDown() override {
        GatewayRoot::TearDown();
        unsetenv("QUELM_LOCK_WAIT_MS");
    }
};

// Takes the configuration lock through an open file description of its own
// (flock conflicts between descriptions as between processes): the
// descriptor, or -1 when the lock is held.
int take_lock(const fs::path &root) {
    int fd = open((root / "var/quelm/config/config.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0) {
        close(fd);
        fd = -1;
    }
    return fd;
}

bool lock_is_free(const fs::path &root) {
    int fd = take_lock(root);
    if (fd >= 0) close(fd);
    return fd >= 0;
}

// Replaces the installed schema and reopens the library on it.
int reopen_with_schema(const fs::path &root, const std::string &body) {
    QM_Cfg_Free();
    std::ofstream(root / "etc/quelm/config.default/schema.xml")
        << "<?xml version=\"1.0\"?>\n<schema>" << body << "</schema>\n";
    return QM_Cfg_Init(1);
}

// The type codes of valid names are checked through qmcfg (test_qmcfg.py).
TEST_F(PlatformTest, NamesMapToSchemaPaths) {
    // xml_path: null: unknown name
    struct Case { const char *name; const char *xml_path; };
    const auto check = [](std::initializer_list<Case> cases) {
        for (const Case &c : cases) {
            EXPECT_STREQ(Text(QM_DAT_objname2xmlpath(c.name)).get(), c.xml_path) << c.name;
            EXPECT_EQ(QM_err_get(), c.xml_path ? 0 : QM_ERR_UNKNOWN_OBJECT) << c.name;
        }
    };
    check({
        {"Device", "Device"}, {"Device_Hostname", "Device.Hostname"}, {"User_3", "User.{i}"},
        {"User_10_Password", "User.{i}.Password"}, {"User_99999999_Enable", "User.{i}.Enable"},
        {"LANDevice_1_IPInterface_1_IPAddress", "LANDevice.{i}.IPInterface.{i}.IPAddress"},
        {"DOCSIS_Management_Interfaces_4_Speed", "DOCSIS.Management.Interfaces.{i}.Speed"},
        {"", nullptr}, {"Device__Hostname", nullptr}, {"Device_Hostname_More", nullptr},
        {"User_0", nullptr},          // instances start at 1
        {"User_03", nullptr},         // one spelling per instance
        {"User_100000000", nullptr},  // above the largest instance number
        {"User_Username", nullptr},   // a List member needs its instance
        {"Device_1", nullptr},  // no instances below a node
        {"User_Count", nullptr},  // pseudo-properties belong to the back end
    });
    for (const char *bad : {"", "{i}", "User.Username", "User.{i}.{i}", "Device.{i}", "Device.Hostname.X", "Device."}) {
        int32_t type = -1;
        EXPECT_EQ(QM_XML_gettype(bad, &type), QM_ERR_UNKNOWN_OBJECT) << bad;
        EXPECT_EQ(type, -1) << bad;
    }
    EXPECT_NE(QM_XML_gettype(nullptr, nullptr), 0);

    // Component names may hold underscores.
    ASSERT_EQ(reopen_with_schema(root_, R"(
        <object name="Services" type="31"><param name="Name" type="1"/></object>
        <object name="Services_IAD" type="31"><param name="Delay" type="3" default="5"/></object>
        <object name="A_B" type="33"><param name="C" type="1"/><param name="C_D" type="2"/></object>)"),
              0);
    check({
        {"Services_IAD", "Services_IAD"},  // the longer component wins
        {"Services_Name", "Services.Name"}, {"Services_IAD_Delay", "Services_IAD.Delay"}, {"A_B_2", "A_B.{i}"},
        {"A_B_2_C", "A_B.{i}.C"},           {"A_B_2_C_D", "A_B.{i}.C_D"},                 {"A_B_2_C_E", nullptr},
        {"A_2", nullptr},                   {"Services_IAD_Name", nullptr},
    });
    int32_t type = 0;
    EXPECT_EQ(QM_XML_gettype("A_B.{i}.C_D", &type), 0);
    EXPECT_EQ(type, QM_TYPE_INT);
}

TEST_F(PlatformTest, MalformedSchemaIsRefused) {
    const char *bodies[] = {
        R"(<object name="A" type="31"/><object name="A" type="31"/>)",  // duplicate
        R"(<object name="A" type="1"/>)",                               // object with a leaf type
        R"(<param name="A" type="31"/>)",                               // param with an object type
        R"(<param name="A" type="3" default="-1"/>)",                   // default does not fit
        R"(<param name="A" type="3" min="5"/>)",                        // implicit 0 below min
        R"(<param name="A" type="1" min="5"/>)",                        // bound on a text
        R"(<param name="A" type="2" maxlen="5"/>)",                     // maxlen on a number
        R"(<object name="A" type="33" count="2"/>)",                    // count on a List
        R"(<object name="A" type="32" count="65"/>)",                   // count above the limit
        R"(<object type="31"/>)",                                       // no name
        R"(<object name="1A" type="31"/>)", R"(<object name="A" type="x"/>)", R"(<thing name="A" type="31"/>)",
        R"(<param name="A" type="1"><param name="B" type="1"/></param>)",
        R"(<object name="A" type="31">)",  // not well-formed
    };
    for (const char *body : bodies) {
        EXPECT_EQ(reopen_with_schema(root_, body), QM_ERR_STORAGE) << body;
        EXPECT_EQ(QM_DAT_objname2xmlpath("A"), nullptr) << body;
        EXPECT_EQ(QM_err_get(), QM_ERR_STORAGE) << body;
    }
}

TEST_F(PlatformTest, RecordsOfAnInstanceLeaveOutLongerNumbers) {
    ASSERT_EQ(QM_DAT_createobject("User_10", 0), 0);
    ASSERT_EQ(QM_DAT_createobject("User_11", 0), 0);
    // User_1 without User_10: the dump test of test_qmcfg.py. The whole list:
    // instances in numeric (not text) order.
    EXPECT_EQ(first_of_each_user("User"), (std::vector<std::string>{"User_1_Enable", "User_2_Enable", "User_3_Enable",
                                                                   "User_10_Enable", "User_11_Enable"}));

    QM_DAT_record *records = QM_DAT_getobjdata("User_1_Password", 0);
    ASSERT_NE(records, nullptr);
    EXPECT_STREQ(records->value, "admin");
    EXPECT_EQ(records->type, QM_TYPE_SECRET);
    EXPECT_EQ(records->next, nullptr);
    QM_DAT_freedata(&records);  // failing reads: config_cache_test.cpp
}

TEST_F(PlatformTest, WhereClausesSelectInstances) {
    // first_of_each: empty: null expected
    struct Case { const char *query; std::vector<std::string> first_of_each; } cases[] = {
        {"User_*", {"User_1_Enable", "User_2_Enable", "User_3_Enable"}},
        {"User_*[Enable=1]", {"User_1_Enable", "User_3_Enable"}},
        {"User_*[Enable=1][User=1][Services?=web_web_admin]", {"User_1_Enable"}},
        {"User_*[Services?=web_web]", {"User_1_Enable", "User_2_Enable"}},
        {"User_*[Services?=web_we]", {}},  // items, not substrings
        {"User_*[User!=1]", {"User_3_Enable"}},
        {"User_*[Username>=x]", {"User_1_Enable", "User_2_Enable", "User_3_Enable"}},  // "x" counts 0
        {"User_*[Missing=1]", {}},
        {"User_*[Enable~1]", {}},
        {"User_*[Enable=1", {}},
        {"User_*x", {}},
        {"Device_*", {}},
    };
    for (const Case &c : cases) EXPECT_EQ(first_of_each_user(c.query), c.first_of_each) << c.query;
}

TEST_F(PlatformTest, CountsFollowCreateAndDelete) {
    EXPECT_EQ(count_of("User"), "1,2,3");
    EXPECT_EQ(count_of("Storage_Item"), "");
    EXPECT_EQ(count_of("HttpServer"), "3");
    EXPECT_EQ(count_of("User_1"), "(null)");
    // new_list_index of qm_util.h reads the same count (its arithmetic: util_test.cpp).
    EXPECT_EQ(new_list_index("User"), 1001);
    EXPECT_EQ(new_list_index("NoSuchObject"), 1001);

    struct Step {
        int (*op)(const char *, int); const char *name; int result; const char *count_of; const char *count;
    } steps[] = {
        {QM_DAT_createobject, "User_1001", 0, "User", "1,2,3,1001"},
        {QM_DAT_deleteobject, "User_2", 0, "User", "1,3,1001"},
        // Arrays keep 1..count: they change at their end only (creating past
        // it, and the count of a node: test_qmcfg.py).
        {QM_DAT_createobject, "LANEthernetInterface_5", 0, "LANEthernetInterface", "5"},
        {QM_DAT_deleteobject, "LANEthernetInterface_3", QM_ERR_NOT_INSTANCE, "LANEthernetInterface", "5"},
        {QM_DAT_deleteobject, "LANEthernetInterface_5", 0, "LANEthernetInterface", "4"},
        // Nested lists need their parent instance.
        {QM_DAT_createobject, "WANConnectionDevice_2_Service_1", QM_ERR_NOTHING, "WANConnectionDevice_1_Service",
         "1,2"},
        {QM_DAT_createobject, "WANConnectionDevice_1_Service_4", 0, "WANConnectionDevice_1_Service", "1,2,4"},
        {QM_DAT_deleteobject, "WANConnectionDevice_1", 0, "WANConnectionDevice", ""},
    };
    for (const Step &s : steps) {
        EXPECT_EQ(s.op(s.name, 0), s.result) << s.name;
        EXPECT_EQ(QM_err_get(), s.result) << s.name;
        EXPECT_EQ(count_of(s.count_of), s.count) << s.name;
    }
    EXPECT_EQ(new_list_index("User"), 1002);
    // Deleting an instance takes everything below it with it.
    EXPECT_EQ(count_of("WANConnectionDevice_1_Service"), "(null)");
    EXPECT_EQ(value_of("WANConnectionDevice_1_Service_1", "Name"), "(null)");

    // A new instance holds the schema defaults, its own Arrays included.
    ASSERT_EQ(QM_DAT_createobject("LANDevice_2", 0), 0);
    EXPECT_EQ(value_of("LANDevice_2_IPInterface_1", "SubnetMask"), "255.255.255.0");
    EXPECT_EQ(value_of("User_1001", "User"), "1");
    EXPECT_EQ(value_of("User_1001", "Enable"), "0");
}

TEST_F(PlatformTest, SetValidatesAgainstTheType) {
    constexpr int kBad = QM_ERR_BAD_VALUE;
    struct Case { const char *object, *property; std::vector<std::pair<const char *, int>> values; } cases[] = {
        {"Services_IADConfigurator", "SessionDelay", {{"600", 0}, {"59", kBad}, {"86401", kBad}, {"", kBad}}},
        {"Services_IADConfigurator", "NumberTry",
         {{"-1", kBad}, {"+1", kBad}, {"4294967295", 0}, {"4294967296", kBad}}},
        {"Services_TR069", "UpgdManaged", {{"-2147483648", 0}, {"2147483648", kBad}, {" 1", kBad}}},
        {"LANDevice_1_IPInterface_1", "IPAddress",
         {{"10.0.0.254", 0}, {"", 0}, {"10.0.0.256", kBad}, {"10.0.0", kBad}, {"10.0.0.01", kBad}}},
        {"Services_IADConfigurator", "CurrentLanguage", {{"1234567", 0}, {"12345678", kBad}}},  // maxlen 7
        // List texts use tabs and vertical tabs; line breaks would forge lines.
        {"Device", "Name", {{"tab\tand\vvertical tab", 0}, {"cr\rhere", kBad}, {nullptr, kBad}}},
        {"Device", "Nope", {{"x", QM_ERR_UNKNOWN_OBJECT}}},
        {"Device", nullptr, {{"x", QM_ERR_UNKNOWN_OBJECT}}},
        {"User", "1_Username", {{"x", 0}}},  // the split point of a name does not matter
        {"User_9", "Username", {{"x", QM_ERR_NOTHING}}},
        {"Services", "IADConfigurator", {{"x", QM_ERR_UNKNOWN_OBJECT}}},  // a node is not a property
    };
    for (const Case &c : cases) {
        for (const auto &[value, result] : c.values) {
            std::string before = c.property != nullptr ? value_of(c.object, c.property) : "";
            EXPECT_EQ(QM_DAT_setobjproperty(c.object, c.property, value, 0), result)
                << c.object << " " << (c.property ? c.property : "(null)") << " " << (value ? value : "(null)");
            EXPECT_EQ(QM_err_get(), result);
            if (c.property != nullptr && result != QM_ERR_NOTHING) {
                EXPECT_EQ(value_of(c.object, c.property), result == 0 ? value : before);
            }
        }
    }
    // A successful read clears an earlier error: the property helpers of
    // the back end return QM_err_get() after it.
    QM_err_set(QM_ERR_STORAGE);
    EXPECT_EQ(value_of("Device", "Hostname"), "gateway");
    EXPECT_EQ(QM_err_get(), 0);
    EXPECT_EQ(value_of("User_9", "Username"), "(null)");
    EXPECT_EQ(QM_err_get(), QM_ERR_NOTHING);
}

// What a factory reset restores: test_qmcfg.py.
TEST_F(PlatformTest, EventsAreStampedInUtc) {
    EXPECT_EQ(QM_FILE_factory(2), 0);
    EXPECT_EQ(QM_SYS_reboot(5), 0);
    EXPECT_EQ(QM_STATUS_set(1), 0);
    std::istringstream log(slurp(root_ / "var/quelm/platform/events.log"));
    std::vector<std::string> events;
    for (std::string line; std::getline(log, line);) {
        ASSERT_GT(line.size(), 21u) << line;
        EXPECT_TRUE(line[4] == '-' && line[19] == 'Z') << line;  // UTC time stamp
        events.push_back(line.substr(21));
    }
    EXPECT_EQ(events, (std::vector<std::string>{"factory 2", "reboot 5", "status 1"}));
}

TEST_F(PlatformTest, ResetPutsBackFactoryOrSchemaValues) {
    ASSERT_EQ(QM_DAT_setobjproperty("WLANInterface_1_Config", "SSID", "mine", 0), 0);
    ASSERT_EQ(QM_DAT_setobjproperty("WLANInterface_1_Config", "Channel", "6", 0), 0);
    ASSERT_EQ(QM_DAT_createobject("User_12", 0), 0);
    ASSERT_EQ(QM_DAT_setobjproperty("User_12", "Username", "temp", 0), 0);

    // Flag 0: the object's own properties only; Config is below WLANInterface_1.
    EXPECT_EQ(QM_DAT_resetobjdata("WLANInterface_1", 0), 0);
    EXPECT_EQ(value_of("WLANInterface_1_Config", "SSID"), "mine");
    EXPECT_EQ(QM_DAT_resetobjdata("WLANInterface_1_Config_Channel", 0), 0);
    EXPECT_EQ(value_of("WLANInterface_1_Config", "Channel"), "0");
    EXPECT_EQ(QM_DAT_resetobjdata("WLANInterface_1", 1), 0);
    EXPECT_EQ(value_of("WLANInterface_1_Config", "SSID"), "QHG-000001");

    EXPECT_EQ(QM_DAT_resetobjdata("User_12", 0), 0);  // not in the factory file: schema defaults
    EXPECT_EQ(value_of("User_12", "Username"), "");
    EXPECT_EQ(count_of("User"), "1,2,3,12");  // instances stay
    EXPECT_EQ(QM_DAT_resetobjdata("User_13", 1), QM_ERR_NOTHING);
    EXPECT_EQ(QM_DAT_resetobjdata("Nope", 1), QM_ERR_UNKNOWN_OBJECT);
}

TEST_F(PlatformTest, LoadSkipsCommentsAndGrowsArrays) {
    std::string message;
    const char *text = "# comment\n\nUser_20_Username=bob\r\nStorage_Item_2_Status_State=ConnectedMounted\n"
                       "LANEthernetInterface_6_Name=eth5\n";
    EXPECT_EQ(quelm::platform::load_text(text, message), 0) << message;
    EXPECT_EQ(count_of("User"), "1,2,3,20");
    EXPECT_EQ(value_of("User_20", "Username"), "bob");
    EXPECT_EQ(value_of("Storage_Item_2_Status", "State"), "ConnectedMounted");
    EXPECT_EQ(count_of("LANEthernetInterface"), "6");  // an Array grows up to the instance named
    // Bad lines, their line numbers and all-or-nothing: test_qmcfg.py.
    std::string dump;
    EXPECT_EQ(quelm::platform::dump_text("WANConnectionDevice_1_Service_9", dump), QM_ERR_NOTHING);
    EXPECT_EQ(quelm::platform::dump_text("Storage_Item_2_Status_MountPoint", dump), 0);
    EXPECT_EQ(dump, "Storage_Item_2_Status_MountPoint=\n");
}

// How long a held lock is waited for: test_generic.py.
TEST_F(PlatformTest, LockHeldElsewhereTimesOutAndNestsWithinTheProcess) {
    int other = take_lock(root_);
    ASSERT_GE(other, 0);
    EXPECT_EQ(QM_FILE_lock(), QM_ERR_LOCKED);
    EXPECT_EQ(QM_FILE_unlock(), QM_ERR_NOTHING);

    close(other);
    EXPECT_EQ(QM_FILE_lock(), 0);
    EXPECT_EQ(QM_FILE_lock(), 0);
    EXPECT_EQ(QM_FILE_unlock(), 0);
    EXPECT_FALSE(lock_is_free(root_));  // one level left
    EXPECT_EQ(QM_FILE_unlock(), 0);
    EXPECT_TRUE(lock_is_free(root_));
    EXPECT_EQ(QM_FILE_unlock(), QM_ERR_NOTHING);
}

TEST_F(PlatformTest, OnlyTheLastFreeReleasesTheLibrary) {
    ASSERT_EQ(QM_FILE_lock(), 0);
    // A handler that opens and frees the library inside a request.
    ASSERT_EQ(QM_Cfg_Init(1), 0);
    EXPECT_EQ(value_of("Device", "Hostname"), "gateway");
    QM_Cfg_Free();
    EXPECT_FALSE(lock_is_free(root_));  // the process's own state survived

    QM_Cfg_Free();  // the fixture's: releases state and lock
    EXPECT_TRUE(lock_is_free(root_));
    QM_Cfg_Free();  // unbalanced: ignored
    // Without QM_Cfg_Init the library opens itself on demand.
    EXPECT_EQ(value_of("Device", "Hostname"), "gateway");
    ASSERT_EQ(QM_Cfg_Init(1), 0);  // for TearDown's QM_Cfg_Free
}

TEST_F(PlatformTest, UninitialisedRootFailsCleanly) {
    QM_Cfg_Free();
    char dir[] = "/tmp/platform_empty.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    setenv("QUELM_ROOT", dir, 1);
    EXPECT_EQ(QM_Cfg_Init(1), QM_ERR_NOT_INIT);
    EXPECT_EQ(QM_DAT_objname2xmlpath("Device"), nullptr);
    EXPECT_EQ(QM_err_get(), QM_ERR_NOT_INIT);
    EXPECT_EQ(QM_FILE_commit(0), QM_ERR_NOT_INIT);
    EXPECT_EQ(QM_FILE_lock(), QM_ERR_NOT_INIT);
    QM_Cfg_Free();
    fs::remove_all(dir);
    setenv("QUELM_ROOT", root_.c_str(), 1);
    ASSERT_EQ(QM_Cfg_Init(1), 0);  // back on the fixture's root
    EXPECT_EQ(value_of("Device", "Hostname"), "gateway");
}

TEST_F(PlatformTest, LogPrintsOnlyWhenSwitchedOn) {
    QM_LOG_print("before %d", 1);
    QM_LOG_set(1);
    QM_LOG_print("during %d", 2);
    QM_LOG_set(0);
    QM_LOG_print("after %d", 3);
    const std::string log = logged();
    EXPECT_TRUE(log.find("before") == log.npos && log.find("during 2") != log.npos && log.find("after") == log.npos)
        << log;
}

std::string embedded(const std::string &user, const std::string &password) {
    return "Embedded username=\"" + user + "\" password=\"" + password + "\"";
}

TEST_F(PlatformTest, WebauthChecksEnabledUsers) {
    struct Case { std::string authorization; const char *realm; int result; } cases[] = {
        {embedded("admin", "admin"), "web", 0},   {embedded("admin", "admin"), nullptr, 0},
        {embedded("admin", "admin"), "nas", -1},  // realm not granted
        {embedded("admin", "admin2"), "web", -1}, {embedded("admin", "admi"), "web", -1},
        {embedded("admin", ""), "web", -1},       {embedded("Admin", "admin"), "web", -1},
        {embedded("guest", ""), "web", -1},                   // disabled
        {embedded("support", "support-3000"), nullptr, -1},  // not a web user
        {embedded("", ""), "web", -1},            {"Embedded username=\"admin\" password=\"admin", "web", -1},
        {"Embedded username=admin password=admin", "web", -1},
        {"Basic YWRtaW46YWRtaW4=", "web", -1},    {"", "web", -1},
    };
    for (const Case &c : cases)
        EXPECT_EQ(webauth_check_auth(0, 0, "/index.htm", c.authorization.c_str(), c.realm, "192.168.1.20"), c.result)
            << c.authorization << " realm " << (c.realm ? c.realm : "(null)");
    EXPECT_EQ(webauth_check_auth(0, 0, "/index.htm", nullptr, "web", nullptr), -1);

    // A user without the admin level is authorised subject to his services;
    // a password holding quotes is taken up to the last one.
    ASSERT_EQ(QM_DAT_setobjproperty("User_2", "Enable", "1", 0), 0);
    ASSERT_EQ(QM_DAT_setobjproperty("User_2", "Password", "a\" password=\"b", 0), 0);
    QM_err_set(17);
    EXPECT_EQ(
        webauth_check_auth(0, 0, nullptr, embedded("guest", "a\" password=\"b").c_str(), "web", nullptr), 1);
    EXPECT_EQ(QM_err_get(), 17);  // the caller's error code is kept
    EXPECT_EQ(webauth_check_auth(0, 0, nullptr, embedded("guest", "a").c_str(), "web", nullptr), -1);

    std::string long_name(WEBAUTH_MAX_USERNAME + 1, 'a');
    ASSERT_EQ(QM_DAT_setobjproperty("User_1", "Username", long_name.substr(1).c_str(), 0), 0);
    EXPECT_EQ(webauth_check_auth(0, 0, nullptr, embedded(long_name.substr(1), "admin").c_str(), "web", nullptr), 0);
    EXPECT_EQ(webauth_check_auth(0, 0, nullptr, embedded(long_name, "admin").c_str(), "web", nullptr), -1);
}

TEST(PlatformWebauth, ErrorMessageIsBoundedAndEscaped) {
    char out[512];
    int n = webauth_send_http_error_message(403, nullptr, out, sizeof out);
    ASSERT_GT(n, 0);
    EXPECT_EQ(static_cast<std::size_t>(n), std::strlen(out));
    EXPECT_EQ(std::string(out).rfind("Status: 403 Forbidden\r\nContent-Type: text/html\r\n\r\n", 0), 0u) << out;

    n = webauth_send_http_error_message(500, "bad <thing>\r\nX-Injected: 1", out, sizeof out);
    ASSERT_GT(n, 0);
    std::string text(out);
    EXPECT_EQ(text.find("\r\nX-Injected"), std::string::npos) << text;
    EXPECT_NE(text.find("bad &lt;thing&gt;"), std::string::npos) << text;

    char small[40];
    EXPECT_EQ(webauth_send_http_error_message(404, nullptr, small, sizeof small), -1);
    EXPECT_STREQ(small, "");
    for (int status : {99, 600}) EXPECT_EQ(webauth_send_http_error_message(status, "x", out, sizeof out), -1);
    EXPECT_EQ(webauth_send_http_error_message(404, nullptr, nullptr, 10), -1);
}

}  // namespace
