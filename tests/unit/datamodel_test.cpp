// Data-model access: the pure parsers of the path language, result trees
// and their printed form, and whole paths against a gateway root built from
// the factory data model (users 1-3, port mappings 1-2, four Ethernet ports,
// three HTTP servers, a WAN device with two services).

#include <sys/time.h>

#include <cstring>
#include <vector>

#include "datamodel/datamodel_internal.h"
#include "qm_generic.h"
#include "qm_node.h"
#include "qm_token.h"
#include "quelm_text.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using namespace cgissi::datamodel;

using test_support::captured_output;


// ---- Pure parsers ---------------------------------------------------------

TEST(DatamodelParse, InstanceListWalk) {
    const struct { const char *list; std::vector<int> visited; } cases[] = {
        {"1,3,4", {1, 3, 4}}, {"", {}},    {"5", {5}},  {"1,2,", {1, 2, 2}},  // a bad item repeats the last
        {"1,x,3", {1, 1}},    {"0,3", {}}, {"x,3", {}}, {" 7, 8", {7, 8}},   {"2,0,5", {2}},
    };
    for (const auto &c : cases) EXPECT_EQ(instance_numbers(c.list), c.visited) << c.list;
}

TEST(DatamodelParse, WildcardFilters) {
    // Flags of a List holding 2 and 5 (end mark after 5) or of an empty one.
    // result: length of the text after the filters, or -1
    const struct { std::vector<int> instances; const char *filter; int result; std::vector<int> selected; } cases[] = {
        {{2, 5}, "", 0, {2, 5}},  {{2, 5}, ">2", 0, {5}},       {{2, 5}, "=3", 0, {}},      {{2, 5}, "!=2", 0, {5}},
        {{2, 5}, "<5", 0, {2}},   {{2, 5}, "<=5", 0, {2, 5}},   {{2, 5}, ">=5_Name", 5, {5}},
        {{2, 5}, ">1<5[Enable=1]_Name", 15, {2}},               {{2, 5}, "_Name", 5, {2, 5}},
        {{2, 5}, "==3", -1, {}},  {{2, 5}, "<>3", -1, {}},      {{2, 5}, "=5==3", -1, {}},
        {{}, "==3", 0, {}},  // nothing selected: no complaint
    };
    for (const auto &c : cases) {
        int flags[QM_INDEX_FLAGS_SIZE] = {};
        int highest = 0;
        for (int i : c.instances) flags[i] = 1, highest = std::max(highest, i);
        flags[highest + 1] = -1;
        EXPECT_EQ(compute_generic_list(c.filter, flags), c.result) << c.filter;
        if (c.result < 0) continue;
        std::vector<int> selected;
        for (int i = 1; flags[i] != -1; ++i)
            if (flags[i] == 1) selected.push_back(i);
        EXPECT_EQ(selected, c.selected) << c.filter;
    }
}

// Selectors and the where clauses of whole paths are in EveryPathForm.
TEST(DatamodelParse, WhereClauses) {
    // holds: -1: unknown operator, -2: does not parse
    const struct { const char *clause, *property; int holds; } wheres[] = {
        {"Count<10", "abc", 1},  // not a number counts as 0
        {"Count<10", "10", 0},        {"Count<=10", "10", 1},     {"Count>2", "3", 1},   {"Count>=4", "3", 0},
        {"Name=box", "box", 1},       {"Name=box", "box ", 0},    {"Name!=box", "boxes", 1},
        {"Name=01", "1", 0},  // texts, not numbers
        {"Days?=Tue", "Mon,Tue", 1},  {"Days?=Tu", "Mon,Tue", 0}, {"Name==box", "box", -1},
        {"Name=", "", -2},            {"=1", "1", -2},            {"Sub_Field=1", "1", 1},
    };
    for (const auto &w : wheres) {
        WhereClause parsed;
        if (!parse_where(w.clause, parsed)) {
            EXPECT_EQ(w.holds, -2) << w.clause;
            continue;
        }
        EXPECT_EQ(compare_where(parsed.op, w.property, parsed.value.c_str()), w.holds) << w.clause;
    }
    // A field longer than its buffer does not overflow it: the clause fails.
    const std::string long_field(5000, 'F');
    WhereClause parsed;
    EXPECT_FALSE(parse_where((long_field + "=1").c_str(), parsed));
    EXPECT_TRUE(parse_where((std::string(128, 'F') + "=" + std::string(500, 'v')).c_str(), parsed));
    EXPECT_EQ(parsed.value.size(), 128u);
}

// Forms that resolve are in IndirectNames; these must not parse.
TEST(DatamodelParse, IndirectForms) {
    Lookup lookup;
    for (const char *bad : {"Obj_[Name=box", "Obj_[Name=]_X", "Obj_[=x]_X", "Obj_[Name=a/b]_X", "[Name=x]"})
        EXPECT_FALSE(parse_lookup(bad, lookup)) << bad;
    EXPECT_FALSE(parse_lookup((std::string(129, 'O') + "[Name=x]").c_str(), lookup));
    EXPECT_FALSE(parse_lookup(("O[N=" + std::string(4000, 'v') + "]").c_str(), lookup));

    IndirectIndex index;
    for (const char *bad : {"Obj_[Other_Prop]", "Obj_[Prop]_Name", "Obj[Other_Prop]_Name"})
        EXPECT_FALSE(parse_indirect_index(bad, index)) << bad;
}

TEST(DatamodelParse, RightsAndOptions) {
    const struct { const char *path, *checked; } rights[] = {
        {"Device_Name", "Device_Name"}, {"User_*[Username=admin]_Password", "User_*[]_Password"},
        {"User_{WLANInterface_1_Config_Channel}_Name", "User_{}_Name"}, {"A_[B_[C]_D]_E", "A_[]_E"},
        {"A_[x}y]_B", "A_[]_B"}, {"A_[unclosed_Wifi", "A_["}, {"A]_B}", "A]_B}"},
    };
    for (const auto &r : rights) EXPECT_EQ(rights_path(r.path), r.checked) << r.path;

    const struct { const char *argument, *path; bool autolearn; int shadow; } options[] = {
        {"Device_Name:show:write", "Device_Name", true, 0}, {"Device_Name:write:show", "Device_Name", true, 0},
        {"Device_Name:show:shadow", "Device_Name", false, 0},  // stripped from the end
        {"Device_Name:shadow", "Device_Name", false, 1},
        {":show", ":show", false, 1},  // nothing precedes it
        {"X:show", "X", false, 0}, {"Device_Name:other", "Device_Name:other", false, 1},
    };
    for (const auto &o : options) {
        std::string argument = o.argument;
        CliOptions parsed;
        strip_cli_options(argument, parsed);
        EXPECT_EQ(argument, o.path) << o.argument;
        EXPECT_EQ(parsed.autolearn, o.autolearn) << o.argument;
        EXPECT_EQ(parsed.shadow, o.shadow) << o.argument;
    }
}

// ---- Trees from given records ------------------------------------------

// A record list owned by the test; moving it keeps the texts in place.
struct RecordList {
    RecordList(std::initializer_list<std::tuple<std::string, std::string, int>> rows) : rows_(rows) {
        for (auto &[name, value, type] : rows_)
            records_.push_back(QM_DAT_record{name.data(), value.data(), static_cast<int8_t>(type), nullptr});
        for (std::size_t i = 0; i + 1 < records_.size(); ++i) records_[i].next = &records_[i + 1];
    }
    QM_DAT_record *head() { return records_.empty() ? nullptr : records_.data(); }

    std::vector<std::tuple<std::string, std::string, int>> rows_;
    std::vector<QM_DAT_record> records_;
};

std::string printed(qm_node *root, int shadow, int mode = SSI_MODE_PLAIN) {
    SSI_Set_Mode(mode);
    std::string out = captured_output([&] { dump_JSON_tree(root != nullptr ? root->child : nullptr, shadow); });
    free_all_node(root);
    SSI_Set_Mode(SSI_MODE_PLAIN);
    return out;
}

using DatamodelTree = test_support::PageOutput;

TEST_F(DatamodelTree, RecordsPrintAsNestedMembers) {
    struct {
        const char *description; RecordList records; const char *json;
        int shadow = 1; const char *name = "Obj", *suffix = nullptr;
    } cases[] = {
        {"secret masked", {{"Obj_Name", "box", 1}, {"Obj_Wifi_Key", "abc", 14}},
         R"({"Name" : "box","Wifi" : {"Key" : "********"}})"},
        {"secret shown", {{"Obj_Wifi_Key", "abc", 28}}, R"({"Wifi" : {"Key" : "abc"}})", 0},
        {"commas of a secret", {{"Obj_K", ",,", 28}, {"Obj_L", ",x", 28}}, R"({"K" : ",,","L" : ",********"})"},
        {"value gains a sibling", {{"Obj_A", "x", 1}, {"Obj_A_B", "y", 1}}, R"({"A" : {"x" : ,"B" : "y"}})"},
        {"value replaces children", {{"Obj_A_B", "y", 1}, {"Obj_A_C", "z", 1}, {"Obj_A", "x", 1}}, R"({"A" : "x"})"},
        {"suffix keeps one branch", {{"Obj_A", "1", 1}, {"Obj_AB", "2", 1}, {"Obj_A_C", "3", 1}},
         R"({"A" : {"1" : ,"C" : "3"}})", 1, "Obj", "A"},
        {"first seen order", {{"Obj_2_N", "b", 1}, {"Obj_1_N", "a", 1}, {"Obj_2_M", "c", 1}},
         R"({"2" : {"N" : "b","M" : "c"},"1" : {"N" : "a"}})"},
        {"other names ignored", {{"Objective_X", "1", 1}, {"Ob", "2", 1}, {"Obj_Y", "3", 1}}, R"({"Y" : "3"})"},
        {"the name itself", {{"Obj_Key", "pw", 28}}, R"("********")", 1, "Obj_Key"},
        {"values are data, not formats", {{"Obj_F", "%s%n%d", 1}}, R"({"F" : "%s%n%d"})"},
        {"a name twice: the later value", {{"Obj_A", "x", 1}, {"Obj_B", "y", 1}, {"Obj_A", "z", 1}},
         R"({"A" : "z","B" : "y"})"},
        {"same length and first letter", {{"Obj_Ab", "1", 1}, {"Obj_Ac", "2", 1}, {"Obj_Ab", "3", 1}},
         R"({"Ab" : "3","Ac" : "2"})"},
        {"properties, then an object", {{"Obj_A", "1", 1}, {"Obj_B", "2", 1}, {"Obj_C_D", "3", 1}},
         R"({"A" : "1","B" : "2","C" : {"D" : "3"}})"},
        {"an empty name", {{"Obj_", "v", 1}}, R"({"" : "v"})"},
    };
    for (auto &c : cases) {
        qm_node *root = create_tree_simple(c.name, c.suffix, c.records.head());
        ASSERT_NE(root, nullptr) << c.description;
        EXPECT_EQ(printed(root, c.shadow), c.json) << c.description;
    }
}

// The escaping of each mode is in json_test.cpp and test_page_symbols_read_the_data_model.
TEST_F(DatamodelTree, UnknownModePrintsOnlyKeysAndXmlIsPlain) {
    RecordList records{{"Obj_Say", "a\"b'c\nd", 1}};
    EXPECT_EQ(printed(create_tree_simple("Obj", nullptr, records.head()), 1, 3), "\"Say\" : \"\"");

    RecordList nested{{"Obj_A_B", "v", 1}, {"Obj_C", "w", 1}};
    qm_node *root = create_tree_simple("Obj", nullptr, nested.head());
    EXPECT_EQ(captured_output([&] { dump_XML_tree(root->child); }), "<A><B>v</B> </A> <C>w</C> ");
    free_all_node(root);
}

TEST_F(DatamodelTree, TfprintfAccumulatesNewestFirst) {
    direct = 0;
    std::string out = captured_output([] {
        tfprintf(nullptr, "%s", "one ");
        tfprintf(nullptr, "%d ", 2);
    });
    EXPECT_EQ(out, "");
    EXPECT_STREQ(fct_buffer, "2 one ");
    direct = 1;
    out = captured_output([] { tfprintf(stdout, "%s", "three "); });
    EXPECT_EQ(out, "three 2 one ");
    EXPECT_EQ(fct_buffer, nullptr);
}

// ---- Paths against the factory data model ---------------------------------

class DatamodelModel : public test_support::GatewayRoot {
protected:
    void SetUp() override {
        GatewayRoot::SetUp();
        QM_LOG_set(1);
        saved_created_ = last_created_indice;
    }
    void TearDown() override {
        last_created_indice = saved_created_;
        remove_last_token_name();
        GatewayRoot::TearDown();
    }

    // The printed payload of a read, or "(null)" when the path fails.
    std::string read(const std::string &path) {
        qm_node *root = create_tree_full(path.c_str(), nullptr, nullptr);
        return root == nullptr ? "(null)" : printed(root, 1);
    }
    std::string computed(const char *path) { return test_support::owned_text(compute_name(path)); }
    std::string token_file() const { return test_support::slurp(root_ / "var/tmp/CGI_Token_abc123"); }
    void set(const char *object, const char *property, const char *value) {
        ASSERT_EQ(QM_DAT_setobjproperty(object, property, value, 0), 0) << object << "_" << property;
    }
    // A valid token file holding rights and further lines.
    void hold_token(const std::string &content) {
        const fs::path file = root_ / "var/tmp/CGI_Token_abc123";
        std::ofstream(file) << content;
        const struct timeval times[2] = {{time(nullptr) + 600, 0}, {time(nullptr) + 600, 0}};
        ASSERT_EQ(utimes(file.c_str(), times), 0);
        remove_last_token_name();
        last_token_name = strdup("/var/tmp/CGI_Token_abc123");
        last_token_lifetime = 600;
    }

    int saved_created_ = -1;
};

// Plain reads, masked secrets and a where clause are also read through the
// executable (test_generic.py, cli= in test_page_symbols_read_the_data_model).
TEST_F(DatamodelModel, EveryPathForm) {
    set("Services_IADConfigurator", "Languages", "3,1");
    const struct { const char *path, *json; } cases[] = {
        {"User_Count", R"("1,2,3")"}, {"HttpServer_List", R"("3")"},
        {"User_*_Username",
         R"({"List" : "1,2,3","1" : {"Username" : "admin"},"2" : {"Username" : "guest"},"3" : {"Username" : "support"}})"},
        {"User_*>1<3_Username", R"({"List" : "2","2" : {"Username" : "guest"}})"},
        {"User_*[User>0][Enable>=1]_Enable", R"({"List" : "1","1" : {"Enable" : "1"}})"},
        {"User_*[Services?=web_web]_Enable", R"({"List" : "1,2","1" : {"Enable" : "1"},"2" : {"Enable" : "0"}})"},
        // Filters come before clauses: here ">2_Enable" is the remainder, which
        // the schema does not know, so the clause is not applied.
        {"User_*[Username<1]>2_Enable", R"({"List" : "1,2,3","1" : ,"2" : ,"3" : })"},
        {"User_*[Password=admin]_Username", R"({"List" : ""})"},  // secrets never match
        {"User_*[Password!=x]_Username", R"({"List" : ""})"}, {"User_*[Nothing=1]_Username", R"({"List" : ""})"},
        {"User_{3,1}_Username", R"({"List" : "3,1","3" : {"Username" : "support"},"1" : {"Username" : "admin"}})"},
        {"User_{2,2,}_Enable",
         R"({"List" : "2,2,2","2" : {"Enable" : "0"},"2" : {"Enable" : "0"},"2" : {"Enable" : "0"}})"},
        {"User_{9}_Username", R"({"List" : ""})"},
        {"User_{Services_IADConfigurator_Languages}_Enable",
         R"({"List" : "3,1","3" : {"Enable" : "1"},"1" : {"Enable" : "1"}})"},
        {"User_{User_1_Password}_Enable", "(null)"}, {"User_{Services_IADConfigurator_Nothing}", "(null)"},
        {"User_*X", "(null)"}, {"User_*[Enable=1", "(null)"}, {"User_*[Enable=1][User=1", "(null)"},
        {"User_{1}_*", R"({"List" : "1","1" : })"},  // the first marker decides
        {"User_*_{1}", R"({"List" : "1,2,3","1" : ,"2" : ,"3" : })"},
        {"LANEthernetInterface_*>2_Name", R"({"List" : "3,4","3" : {"Name" : "eth2"},"4" : {"Name" : "eth3"}})"},
        {"Device_*", "(null)"},  // not a List or Array
        {"User_[Username=guest]_Enable", R"("0")"},
        {"WANConnectionDevice_[Name=Remote web access]_Name", R"("dsl")"},  // only the end is compared
        {"User_[Username=nobody]_Enable", "(null)"}, {"User_[Password=admin]_Username", "(null)"},
        {"Nothing_At_All", "(null)"},
    };
    for (const auto &c : cases) EXPECT_EQ(read(c.path), c.json) << c.path;
    EXPECT_NE(logged().find("found nothing to match User_Username [nobody]"), std::string::npos);
    EXPECT_NE(logged().find("unknow selector (X for User_*X)"), std::string::npos);
    EXPECT_NE(logged().find("Bad syntax in Wheres, aborting the query"), std::string::npos);
}

// A list of eight instances or more is read in one piece; what it gives for
// each instance must be what a read of that instance by itself gives (lists
// of fewer instances are read item by item), nested objects included. Sets,
// order, repeats, gaps and masking of such reads of User: test_generic_lists.py.
TEST_F(DatamodelModel, ListReadsInOnePieceGiveWhatItemReadsGive) {
    for (int i = 2; i <= 9; ++i) ASSERT_EQ(QM_DAT_createobject(("LANDevice_" + std::to_string(i)).c_str(), 0), 0);
    // The payload of a one-instance read: what follows its "<n>" key.
    auto item = [&](const std::string &object, const std::string &n, const std::string &remainder) {
        const std::string one = read(object + "_{" + n + "}" + remainder);
        const std::string key = ",\"" + n + "\" : ";
        const std::size_t at = one.find(key);
        return at == std::string::npos ? "(none)" : one.substr(at + key.size(), one.size() - at - key.size() - 1);
    };
    const struct { const char *object, *set, *remainder; } cases[] = {
        {"LANDevice", "1,2,3,4,5,6,7,8,9", ""},
        {"LANDevice", "9,8,7,6,5,4,3,2,1,11", "_IPInterface"},  // out of order, a missing instance
        {"LANDevice", "1,2,3,4,5,6,7,8,9", "_Name"},
    };
    for (const auto &c : cases) {
        std::string list, expected;
        quelm::split(c.set, ',', [&](std::string_view n) {
            const std::string payload = item(c.object, std::string(n), c.remainder);
            if (payload == "(none)") return;
            list += (list.empty() ? "" : ",") + std::string(n);
            expected += ",\"" + std::string(n) + "\" : " + payload;
        });
        const std::string path = std::string(c.object) + "_{" + c.set + "}" + c.remainder;
        EXPECT_EQ(read(path), "{\"List\" : \"" + list + "\"" + expected + "}") << path;
    }
    // Not a comparison of two failures: the items hold their values.
    EXPECT_NE(item("LANDevice", "3", "").find("\"IPInterface\" : {\"1\" : {"), std::string::npos);
}

TEST_F(DatamodelModel, ArraysOfCountZeroAndTheIndexTableEnd) {
    for (const char *server : {"HttpServer_3", "HttpServer_2", "HttpServer_1"})
        ASSERT_EQ(QM_DAT_deleteobject(server, 0), 0);
    EXPECT_EQ(read("HttpServer_*"), R"({"List" : ""})");
    EXPECT_EQ(read("HttpServer_*_Name"), R"({"List" : ""})");

    ASSERT_EQ(QM_DAT_createobject("User_1023", 0), 0);
    set("User_1023", "Username", "last");
    EXPECT_EQ(read("User_*>3_Username"), R"({"List" : "1023","1023" : {"Username" : "last"}})");
    ASSERT_EQ(QM_DAT_createobject("User_1024", 0), 0);
    EXPECT_EQ(read("User_*>3_Username"), "(null)");
    EXPECT_NE(logged().find("instance 1024 out of range"), std::string::npos);
    // Explicit sets do not use the table.
    EXPECT_EQ(read("User_{1024}_Enable"), R"({"List" : "1024","1024" : {"Enable" : "0"}})");
}

TEST_F(DatamodelModel, IndirectNames) {
    set("Services_IADConfigurator", "MaxTry", "2");
    set("User_1", "Password", "3");
    last_created_indice = -1;
    const struct { const char *path, *name; } before[] = {
        {"User_[Username=guest]_Enable", "User_2_Enable"}, {"User_[Username=support]", "User_3"},
        {"User[Username=support]", "User_3"},               {"User_[Password=3]_Enable", "(null)"},
        {"User_0_Enable", "(null)"},  // nothing created yet
        {"User_[Services_IADConfigurator_MaxTry]_Username", "User_2_Username"},
        {"User_[Device_Name]_Username", "(null)"},      // not an instance number
        {"User_[User_1_Password]_Username", "(null)"},  // a secret
        {"User_[Nothing]_Username", "(null)"}, {"Device_Name", "(null)"},
    };
    for (const auto &c : before) EXPECT_EQ(computed(c.path), c.name) << c.path;
    last_created_indice = 12;
    EXPECT_EQ(computed("PortMapping_0_Name"), "PortMapping_12_Name");
    EXPECT_EQ(computed("A_0_B_0_C"), "A_12_B_0_C");  // the first "_0_" only
    EXPECT_EQ(computed("User_[Username=guest]_0_X"), "User_2_0_X");  // a lookup first
    const std::string long_path = "A_0_" + std::string(300, 'x');
    EXPECT_EQ(computed(long_path.c_str()).size(), 127u);
}

TEST_F(DatamodelModel, CreatesInstancesForTheToken) {
    const char *rule = "Services_ParentalControl_Rule";
    ASSERT_EQ(QM_DAT_createobject("Services_ParentalControl_Rule_3", 0), 0);
    ASSERT_EQ(QM_DAT_createobject("Services_ParentalControl_Rule_4", 0), 0);

    hold_token("600\nDevice\nnot a line\nPortMapping,0,\nServices_ParentalControl_Rule,3,Name=kid,User=1\n");
    EXPECT_EQ(create_object(rule), 5);
    EXPECT_EQ(test_support::owned_text(QM_DAT_getobjproperty("Services_ParentalControl_Rule_5", "Name")), "kid");
    const std::string rights = token_file().substr(4, token_file().find('\n', 4) - 4);
    EXPECT_NE(rights.find(",Services_ParentalControl_Rule_5_Enable"), std::string::npos) << rights;
    EXPECT_EQ(rights.find("Rule_5_Name"), std::string::npos) << rights;  // forced by the token
    EXPECT_EQ(rights.find("Rule_5_User"), std::string::npos) << rights;
    EXPECT_NE(logged().find("syntax error on  not a line"), std::string::npos);

    EXPECT_EQ(create_object("PortMapping"), -1);  // first instance 0
    hold_token("600\nall\nServices_ParentalControl_Rule,1,Name\n");
    EXPECT_EQ(create_object(rule), -1);  // a default without "=": the instance stays
    EXPECT_EQ(test_support::owned_text(QM_DAT_getobjcount(rule)), "1,3,4,5");
    remove_last_token_name();
    EXPECT_EQ(create_object(rule), -1);
}

TEST_F(DatamodelModel, RebootRequestsOfEarlierRequestsAreDropped) {
    need_reboot = 1;
    need_factory = 1;
    setenv("REQUEST_METHOD", "GET", 1);
    setenv("QUERY_STRING", "read=Device_Name", 1);
    const std::string out = captured_output([] { generic_cgi(0, nullptr); });
    unsetenv("REQUEST_METHOD");
    unsetenv("QUERY_STRING");
    EXPECT_EQ(out, "Content-Type: text/plain\r\n\r\n"
                   "{\"error\" : \"You must provide a token to access the values of CLI get or post.\"}\n");
    EXPECT_EQ(need_reboot, 0);
    EXPECT_EQ(need_factory, 0);
    EXPECT_EQ(test_support::slurp(root_ / "var/quelm/platform/events.log").find("reboot"), std::string::npos);
}

}  // namespace
