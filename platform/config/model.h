// Data-model operations over the schema and the database: the meaning of
// the QM_DAT_ and QM_FILE_ calls without their C edge. Every operation
// returns 0 or a QM_ERR_ number and works on the running configuration
// unless it says otherwise.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "schema.h"
#include "store.h"
#include "text_formats.h"

namespace quelm::platform {

struct Record {
    std::string name;
    std::string value;
    int type = 0;
};

// The factory defaults file: its lines in order, and the value it gives
// each property it names (the last line wins).
struct FactoryDefaults {
    std::vector<Assignment> lines;
    std::unordered_map<std::string, std::string> values;

    explicit FactoryDefaults(std::vector<Assignment> parsed) : lines(std::move(parsed)) {
        for (const Assignment &a : lines) values[a.name] = a.value;
    }
};

class DataModel {
public:
    DataModel(const Schema &schema, Database &db, const FactoryDefaults &factory)
        : schema_(schema), db_(db), factory_(factory) {}

    // Whether the object's instance (or, for a name below instances, the
    // innermost one) exists; objects outside any List or Array always do.
    int exists(std::string_view object, bool &exists);
    int get(std::string_view property, std::string &value);
    // changed tells whether the stored text differs from before.
    int set(std::string_view property, std::string_view value, bool &changed);
    int count(std::string_view object, std::string &text);
    // An object, a property, or "<list>_*[clauses]" (see qm_config.h).
    int records(std::string_view object, std::vector<Record> &out);
    // Every property of the running configuration, in key order.
    int all_records(std::vector<Record> &out);
    int create(std::string_view object);
    int remove(std::string_view object);
    int reset(std::string_view object, bool deep);

    int commit();
    int revert();
    // Running and saved configuration become the factory defaults.
    int factory(std::string &error);
    // Applies the assignments to the running configuration in one
    // transaction, creating missing instances; nothing changes on error.
    int load(const std::vector<Assignment> &assignments, std::string &error);

private:
    enum class InstanceChange { Create, Remove };
    int change_instance(std::string_view object, InstanceChange change);
    bool fill_members(Rows &rows, const SchemaNode &container, const std::string &key, const std::string &name);
    bool create_instance(Rows &rows, const SchemaNode &collection, const std::string &key, const std::string &name);
    int ensure_instances(Rows &rows, const Resolved &target);
    int apply(Rows &rows, const std::vector<Assignment> &assignments, std::string &error);
    int instance_exists(Rows &rows, const Resolved &target, bool &exists);
    // QM_ERR_NOTHING when the instance the target lies in does not exist.
    int require_instance(Rows &rows, const Resolved &target);
    std::string factory_value(const std::string &name, const SchemaNode &leaf) const;
    bool to_records(const std::vector<Row> &rows, std::vector<Record> &out) const;
    int filtered_records(std::string_view object, std::size_t star, std::vector<Record> &out);

    const Schema &schema_;
    Database &db_;
    const FactoryDefaults &factory_;
};

}  // namespace quelm::platform
