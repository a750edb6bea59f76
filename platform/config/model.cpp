#include "model.h"

namespace quelm::platform {
namespace {

std::string parent_key(const std::string &instance_key) {
    return instance_key.substr(0, instance_key.size() - kKeyComponentWidth);
}

}  // namespace

bool DataModel::fill_members(Rows &rows, const SchemaNode &container, const std::string &key, const std::string &name) {
    for (const auto &child : container.children) {
        std::string child_key = key;
        append_key_component(child_key, child->index);
        std::string child_name = join_name(name, child->name);
        bool ok = true;
        if (child->is_leaf()) {
            ok = rows.put(child_key, child_name, &child->default_value);
        } else if (child->is_container()) {
            ok = fill_members(rows, *child, child_key, child_name);
        } else if (child->type == QM_TYPE_ARRAY) {
            for (std::uint32_t n = 1; ok && n <= child->initial_count; ++n) {
                std::string instance_key = child_key;
                append_key_component(instance_key, n);
                ok = create_instance(rows, *child, instance_key, child_name + "_" + std::to_string(n));
            }
        }
        if (!ok) return false;
    }
    return true;
}

bool DataModel::create_instance(Rows &rows, const SchemaNode &collection, const std::string &key,
                                const std::string &name) {
    return rows.put(key, name, nullptr) && fill_members(rows, collection, key, name);
}

int DataModel::instance_exists(Rows &rows, const Resolved &target, bool &exists) {
    exists = true;
    if (target.instances.empty()) return QM_ERR_NONE;
    RowState state;
    if (!rows.find(target.instances.back().key, state, nullptr)) return QM_ERR_STORAGE;
    exists = state == RowState::Instance;
    return QM_ERR_NONE;
}

int DataModel::require_instance(Rows &rows, const Resolved &target) {
    bool exists = false;
    if (int rc = instance_exists(rows, target, exists)) return rc;
    return exists ? QM_ERR_NONE : QM_ERR_NOTHING;
}

int DataModel::exists(std::string_view object, bool &exists) {
    exists = false;
    auto target = schema_.resolve(object);
    if (!target) return QM_ERR_UNKNOWN_OBJECT;
    Rows rows(db_, Table::Running);
    return instance_exists(rows, *target, exists);
}

int DataModel::get(std::string_view property, std::string &value) {
    auto target = schema_.resolve_as(property, &Resolved::is_property);
    if (!target) return QM_ERR_UNKNOWN_OBJECT;
    Rows rows(db_, Table::Running);
    RowState state;
    if (!rows.find(target->key, state, &value)) return QM_ERR_STORAGE;
    return state == RowState::Value ? QM_ERR_NONE : QM_ERR_NOTHING;
}

int DataModel::set(std::string_view property, std::string_view value, bool &changed) {
    changed = false;
    auto target = schema_.resolve_as(property, &Resolved::is_property);
    if (!target) return QM_ERR_UNKNOWN_OBJECT;
    if (int rc = validate_value(*target->node, value)) return rc;
    Rows rows(db_, Table::Running);
    Transaction tx(db_);
    if (!tx.ok()) return QM_ERR_STORAGE;
    if (int rc = require_instance(rows, *target)) return rc;
    RowState state;
    std::string old;
    if (!rows.find(target->key, state, &old)) return QM_ERR_STORAGE;
    changed = state != RowState::Value || old != value;
    if (!changed) return QM_ERR_NONE;
    // A property missing from an existing instance (the schema grew since
    // the instance was made) is added here.
    std::string text(value);
    if (!rows.put(target->key, target->name, &text) || !tx.commit()) {
        changed = false;
        return QM_ERR_STORAGE;
    }
    return QM_ERR_NONE;
}

int DataModel::count(std::string_view object, std::string &text) {
    auto target = schema_.resolve_as(object, &Resolved::is_collection);
    if (!target) return QM_ERR_UNKNOWN_OBJECT;
    Rows rows(db_, Table::Running);
    if (int rc = require_instance(rows, *target)) return rc;
    std::vector<std::uint32_t> numbers;
    if (!rows.instances(target->key, numbers)) return QM_ERR_STORAGE;
    text.clear();
    if (target->node->type == QM_TYPE_ARRAY) {
        text = std::to_string(numbers.size());
        return QM_ERR_NONE;
    }
    for (std::uint32_t n : numbers) {
        if (!text.empty()) text.push_back(',');
        text += std::to_string(n);
    }
    return QM_ERR_NONE;
}

bool DataModel::to_records(const std::vector<Row> &rows, std::vector<Record> &out) const {
    for (const Row &row : rows) {
        if (!row.value) continue;
        auto target = schema_.resolve(row.name);
        // A row the schema no longer knows is left out rather than typed wrong.
        if (!target || !target->is_property()) continue;
        out.push_back({row.name, *row.value, target->node->type});
    }
    return true;
}

int DataModel::records(std::string_view object, std::vector<Record> &out) {
    std::size_t star = object.find("_*");
    if (star != std::string_view::npos) return filtered_records(object, star, out);
    auto target = schema_.resolve(object);
    if (!target) return QM_ERR_UNKNOWN_OBJECT;
    Rows rows(db_, Table::Running);
    std::vector<Row> found;
    if (target->is_property()) {
        RowState state;
        std::string value;
        if (!rows.find(target->key, state, &value)) return QM_ERR_STORAGE;
        if (state == RowState::Value) out.push_back({target->name, value, target->node->type});
    } else {
        if (!rows.scan(target->key, found)) return QM_ERR_STORAGE;
        to_records(found, out);
    }
    return out.empty() ? QM_ERR_NOTHING : QM_ERR_NONE;
}

int DataModel::filtered_records(std::string_view object, std::size_t star, std::vector<Record> &out) {
    auto target = schema_.resolve_as(object.substr(0, star), &Resolved::is_collection);
    if (!target) return QM_ERR_UNKNOWN_OBJECT;
    auto clauses = parse_where_clauses(object.substr(star + 2));
    if (!clauses) return QM_ERR_BAD_VALUE;
    Rows rows(db_, Table::Running);
    std::vector<std::uint32_t> numbers;
    if (!rows.instances(target->key, numbers)) return QM_ERR_STORAGE;
    for (std::uint32_t n : numbers) {
        std::string key = target->key;
        append_key_component(key, n);
        std::string prefix = target->name + "_" + std::to_string(n) + "_";
        std::vector<Row> found;
        if (!rows.scan(key, found)) return QM_ERR_STORAGE;
        bool holds = true;
        for (const WhereClause &clause : *clauses) {
            const std::string *value = nullptr;
            for (const Row &row : found)
                if (row.value && row.name.size() == prefix.size() + clause.field.size() &&
                    row.name.compare(0, prefix.size(), prefix) == 0 &&
                    row.name.compare(prefix.size(), std::string::npos, clause.field) == 0)
                    value = &*row.value;
            if (!where_holds(clause, value)) {
                holds = false;
                break;
            }
        }
        if (holds) to_records(found, out);
    }
    return out.empty() ? QM_ERR_NOTHING : QM_ERR_NONE;
}

int DataModel::all_records(std::vector<Record> &out) {
    Rows rows(db_, Table::Running);
    std::vector<Row> found;
    if (!rows.scan("", found)) return QM_ERR_STORAGE;
    to_records(found, out);
    return QM_ERR_NONE;
}

// Arrays grow and shrink at their end only; a new instance needs the
// instance it is created in.
int DataModel::change_instance(std::string_view object, InstanceChange change) {
    const bool creating = change == InstanceChange::Create;
    auto target = schema_.resolve(object);
    if (!target) return QM_ERR_UNKNOWN_OBJECT;
    if (!target->at_instance) return QM_ERR_NOT_INSTANCE;
    const InstanceRef &self = target->instances.back();
    Rows rows(db_, Table::Running);
    Transaction tx(db_);
    if (!tx.ok()) return QM_ERR_STORAGE;
    RowState state;
    if (creating && target->instances.size() > 1) {
        if (!rows.find(target->instances[target->instances.size() - 2].key, state, nullptr)) return QM_ERR_STORAGE;
        if (state != RowState::Instance) return QM_ERR_NOTHING;
    }
    if (!rows.find(self.key, state, nullptr)) return QM_ERR_STORAGE;
    if (creating && state != RowState::Absent) return QM_ERR_EXISTS;
    if (!creating && state != RowState::Instance) return QM_ERR_NOTHING;
    if (self.collection->type == QM_TYPE_ARRAY) {
        std::vector<std::uint32_t> numbers;
        if (!rows.instances(parent_key(self.key), numbers)) return QM_ERR_STORAGE;
        if (self.number != numbers.size() + (creating ? 1 : 0)) return QM_ERR_NOT_INSTANCE;
    }
    bool done = creating ? create_instance(rows, *self.collection, self.key, self.name) : rows.erase_prefix(self.key);
    if (!done || !tx.commit()) return QM_ERR_STORAGE;
    return QM_ERR_NONE;
}

int DataModel::create(std::string_view object) { return change_instance(object, InstanceChange::Create); }

int DataModel::remove(std::string_view object) { return change_instance(object, InstanceChange::Remove); }

std::string DataModel::factory_value(const std::string &name, const SchemaNode &leaf) const {
    auto it = factory_.values.find(name);
    // A factory value that no longer fits the schema is not put back.
    if (it != factory_.values.end() && validate_value(leaf, it->second) == QM_ERR_NONE) return it->second;
    return leaf.default_value;
}

int DataModel::reset(std::string_view object, bool deep) {
    auto target = schema_.resolve(object);
    if (!target) return QM_ERR_UNKNOWN_OBJECT;
    Rows rows(db_, Table::Running);
    Transaction tx(db_);
    if (!tx.ok()) return QM_ERR_STORAGE;
    if (int rc = require_instance(rows, *target)) return rc;
    std::vector<Row> found;
    if (target->is_property()) {
        found.push_back({target->key, target->name, std::string()});
    } else if (!rows.scan(target->key, found)) {
        return QM_ERR_STORAGE;
    }
    for (const Row &row : found) {
        if (!row.value) continue;
        // Without deep only the object's own properties: one key component
        // below the object's key.
        if (!deep && !target->is_property() && row.key.size() != target->key.size() + kKeyComponentWidth) continue;
        auto leaf = schema_.resolve_as(row.name, &Resolved::is_property);
        if (!leaf) continue;
        std::string value = factory_value(row.name, *leaf->node);
        if (!rows.put(row.key, row.name, &value)) return QM_ERR_STORAGE;
    }
    return tx.commit() ? QM_ERR_NONE : QM_ERR_STORAGE;
}

int DataModel::commit() {
    Transaction tx(db_);
    return tx.ok() && copy_table(db_, Table::Running, Table::Saved) && tx.commit() ? QM_ERR_NONE : QM_ERR_STORAGE;
}

int DataModel::revert() {
    Transaction tx(db_);
    return tx.ok() && copy_table(db_, Table::Saved, Table::Running) && tx.commit() ? QM_ERR_NONE : QM_ERR_STORAGE;
}

int DataModel::ensure_instances(Rows &rows, const Resolved &target) {
    for (const InstanceRef &ref : target.instances) {
        RowState state;
        if (!rows.find(ref.key, state, nullptr)) return QM_ERR_STORAGE;
        if (state == RowState::Instance) continue;
        if (ref.collection->type == QM_TYPE_LIST) {
            if (!create_instance(rows, *ref.collection, ref.key, ref.name)) return QM_ERR_STORAGE;
            continue;
        }
        // An Array grows up to the instance named, keeping 1..count.
        std::string collection_key = parent_key(ref.key);
        std::string collection_name = ref.name.substr(0, ref.name.rfind('_'));
        std::vector<std::uint32_t> numbers;
        if (!rows.instances(collection_key, numbers)) return QM_ERR_STORAGE;
        for (auto n = static_cast<std::uint32_t>(numbers.size() + 1); n <= ref.number; ++n) {
            std::string key = collection_key;
            append_key_component(key, n);
            if (!create_instance(rows, *ref.collection, key, collection_name + "_" + std::to_string(n)))
                return QM_ERR_STORAGE;
        }
    }
    return QM_ERR_NONE;
}

int DataModel::apply(Rows &rows, const std::vector<Assignment> &assignments, std::string &error) {
    for (const Assignment &a : assignments) {
        auto target = schema_.resolve_as(a.name, &Resolved::is_property);
        if (!target) {
            error = "line " + std::to_string(a.line) + ": unknown property " + a.name;
            return QM_ERR_UNKNOWN_OBJECT;
        }
        if (validate_value(*target->node, a.value) != QM_ERR_NONE) {
            error = "line " + std::to_string(a.line) + ": value does not fit " + a.name;
            return QM_ERR_BAD_VALUE;
        }
        if (int rc = ensure_instances(rows, *target)) {
            error = "line " + std::to_string(a.line) + ": cannot store " + a.name;
            return rc;
        }
        if (!rows.put(target->key, target->name, &a.value)) {
            error = "line " + std::to_string(a.line) + ": cannot store " + a.name;
            return QM_ERR_STORAGE;
        }
    }
    return QM_ERR_NONE;
}

int DataModel::load(const std::vector<Assignment> &assignments, std::string &error) {
    Rows rows(db_, Table::Running);
    Transaction tx(db_);
    if (!tx.ok()) {
        error = db_.message();
        return QM_ERR_STORAGE;
    }
    if (int rc = apply(rows, assignments, error)) return rc;
    if (!tx.commit()) {
        error = db_.message();
        return QM_ERR_STORAGE;
    }
    return QM_ERR_NONE;
}

int DataModel::factory(std::string &error) {
    Rows rows(db_, Table::Running);
    Transaction tx(db_);
    if (!tx.ok() || !rows.clear() || !fill_members(rows, schema_.root(), "", "")) {
        error = db_.message();
        return QM_ERR_STORAGE;
    }
    if (int rc = apply(rows, factory_.lines, error)) return rc;
    if (!copy_table(db_, Table::Running, Table::Saved) || !tx.commit()) {
        error = db_.message();
        return QM_ERR_STORAGE;
    }
    return QM_ERR_NONE;
}

}  // namespace quelm::platform
