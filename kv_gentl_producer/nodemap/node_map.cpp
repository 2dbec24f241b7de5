#include "nodemap/node_map.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <fstream>
#include <iterator>
#include <limits>
#include <mutex>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>

#include "nodemap/aravis_runtime.h"
#include "nodemap/port_device.h"
#include "nodemap/xml_check.h"
#include "nodemap/zip_directory.h"

using pelorin::nodemap::enum_entry_info;
using pelorin::nodemap::node_kind;
using pelorin::nodemap::node_visibility;
using pelorin::nodemap::number_representation;

namespace {

// Largest description a zip entry may unpack to; real ones are a few MiB.
constexpr uint32_t kMaxDescriptionSize = 256u << 20;

const std::string kEntryPrefix = "EnumEntry_";

// Throws (and frees) an error an Aravis call reported.
void raise_if(GError *error, const std::string &node) {
    if (error == nullptr) return;
    const std::string message = error->message != nullptr ? error->message : "failed";
    g_error_free(error);
    throw genapi_error(message, node);
}

// Runs an Aravis call that reports through a GError: its result, or the
// error's message thrown.
template <typename Call>
auto checked(const std::string &node, Call call) {
    GError *error = nullptr;
    if constexpr (std::is_void_v<decltype(call(&error))>) {
        call(&error);
        raise_if(error, node);
    } else {
        auto result = call(&error);
        raise_if(error, node);
        return result;
    }
}

std::string text_or_empty(const char *text) { return text != nullptr ? text : ""; }

bool ends_with_xml(const std::string &name) {
    if (name.size() < 4) return false;
    std::string suffix = name.substr(name.size() - 4);
    std::transform(suffix.begin(), suffix.end(), suffix.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return suffix == ".xml";
}

std::string read_whole_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw genapi_error("cannot open '" + path + "'");
    std::string data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad()) throw genapi_error("cannot read '" + path + "'");
    return data;
}

// The direct property child of `node` of one of the given types.
ArvGcPropertyNode *find_property(ArvGcNode *node, ArvGcPropertyNodeType type,
                                 ArvGcPropertyNodeType pointer_type) {
    for (ArvDomNode *child = arv_dom_node_get_first_child(ARV_DOM_NODE(node)); child != nullptr;
         child = arv_dom_node_get_next_sibling(child)) {
        if (!ARV_IS_GC_PROPERTY_NODE(child)) continue;
        const ArvGcPropertyNodeType found =
            arv_gc_property_node_get_node_type(ARV_GC_PROPERTY_NODE(child));
        if (found == type || found == pointer_type) return ARV_GC_PROPERTY_NODE(child);
    }
    return nullptr;
}

EAccessMode from_aravis(ArvGcAccessMode mode) {
    switch (mode) {
        case ARV_GC_ACCESS_MODE_RO:
            return RO;
        case ARV_GC_ACCESS_MODE_WO:
            return WO;
        case ARV_GC_ACCESS_MODE_RW:
            return RW;
        default:
            return _UndefinedAccesMode;
    }
}

// NI / NA, or nothing when the node is implemented and available.
std::optional<EAccessMode> presence(ArvGcFeatureNode *feature, const std::string &name) {
    if (!checked(name, [&](GError **e) { return arv_gc_feature_node_is_implemented(feature, e); }))
        return NI;
    if (!checked(name, [&](GError **e) { return arv_gc_feature_node_is_available(feature, e); }))
        return NA;
    return std::nullopt;
}

// The nodes that the pointer properties of `node` name: with `values_only`
// only its pValue, with `selected` only its pSelected, with `reads` those
// that reading its value, range, access or address follows (every one but
// pSelected, pInvalidator and pFeature), else every one but pSelected. Port
// nodes are left out: every register leads to one.
enum class links { values_only, selected, inputs, reads };
void linked_nodes(ArvGcNode *node, links which, std::vector<ArvGcNode *> &out) {
    for (ArvDomNode *child = arv_dom_node_get_first_child(ARV_DOM_NODE(node)); child != nullptr;
         child = arv_dom_node_get_next_sibling(child)) {
        if (!ARV_IS_GC_PROPERTY_NODE(child)) continue;
        ArvGcPropertyNode *property = ARV_GC_PROPERTY_NODE(child);
        const ArvGcPropertyNodeType type = arv_gc_property_node_get_node_type(property);
        if (type <= ARV_GC_PROPERTY_NODE_TYPE_P_UNKNONW) continue;  // a literal value
        const bool is_selected = type == ARV_GC_PROPERTY_NODE_TYPE_P_SELECTED;
        if (which == links::values_only && type != ARV_GC_PROPERTY_NODE_TYPE_P_VALUE) continue;
        if (which == links::reads && (type == ARV_GC_PROPERTY_NODE_TYPE_P_INVALIDATOR ||
                                      type == ARV_GC_PROPERTY_NODE_TYPE_P_FEATURE))
            continue;
        if ((which == links::selected) != is_selected) continue;
        ArvGcNode *target = arv_gc_property_node_get_linked_node(property);
        if (target != nullptr && !ARV_IS_GC_PORT(target)) out.push_back(target);
    }
}

// `start` and every node reached from it through `which` links.
std::unordered_set<ArvGcNode *> reachable(ArvGcNode *start, links which) {
    std::unordered_set<ArvGcNode *> seen{start};
    std::vector<ArvGcNode *> pending{start};
    std::vector<ArvGcNode *> next;
    while (!pending.empty()) {
        ArvGcNode *node = pending.back();
        pending.pop_back();
        next.clear();
        linked_nodes(node, which, next);
        for (ArvGcNode *target : next)
            if (seen.insert(target).second) pending.push_back(target);
    }
    return seen;
}

// Depth-first over the links::reads links below `start`, without recursion
// (a description may chain nodes deeply). `descend(node)` is asked once per
// link whether to walk below its target; `finish(node)` runs when the walk
// leaves a node, after every node below it, `start` last.
template <typename Descend, typename Finish>
void walk_reads(ArvGcNode *start, Descend &&descend, Finish &&finish) {
    struct step {
        ArvGcNode *node;
        std::vector<ArvGcNode *> next;
        size_t taken = 0;
    };
    std::vector<step> path(1, step{start, {}});
    linked_nodes(start, links::reads, path.back().next);
    while (!path.empty()) {
        step &top = path.back();
        if (top.taken < top.next.size()) {
            ArvGcNode *next = top.next[top.taken++];
            if (!descend(next)) continue;
            path.push_back(step{next, {}});
            linked_nodes(next, links::reads, path.back().next);
            continue;
        }
        ArvGcNode *left = top.node;
        path.pop_back();
        finish(left);
    }
}

// A node of the description whose value, range, access or address is read
// through itself (a pValue naming its own node, two nodes naming each other,
// and so on), or null. Aravis follows such links without end: the access
// mode loops for ever, a value read recurses until the stack runs out.
ArvGcNode *node_on_read_cycle(ArvGc *genicam) {
    // Every feature node at any depth (groups, struct registers, entries).
    std::vector<ArvGcNode *> nodes;
    std::vector<ArvDomNode *> parents{
        ARV_DOM_NODE(arv_dom_document_get_document_element(ARV_DOM_DOCUMENT(genicam)))};
    while (!parents.empty()) {
        ArvDomNode *parent = parents.back();
        parents.pop_back();
        for (ArvDomNode *child = arv_dom_node_get_first_child(parent); child != nullptr;
             child = arv_dom_node_get_next_sibling(child)) {
            parents.push_back(child);
            if (ARV_IS_GC_FEATURE_NODE(child)) nodes.push_back(ARV_GC_NODE(child));
        }
    }
    // A node is open while the walk is below it; a link to an open node
    // closes a cycle.
    std::unordered_map<ArvGcNode *, bool> open;  // false once finished
    ArvGcNode *cycle = nullptr;
    const auto descend = [&](ArvGcNode *next) {
        const auto seen = open.find(next);
        if (seen != open.end()) {
            if (seen->second && cycle == nullptr) cycle = next;
            return false;
        }
        open[next] = true;
        return cycle == nullptr;
    };
    const auto finish = [&](ArvGcNode *left) { open[left] = false; };
    for (ArvGcNode *start : nodes) {
        if (open.count(start) != 0) continue;
        open[start] = true;
        walk_reads(start, descend, finish);
        if (cycle != nullptr) return cycle;
    }
    return nullptr;
}

// Aravis reads and writes a register whole, through a buffer of the
// register's length that it allocates first; the length is a <Length> of
// the description or a pLength, which may come from a device register. So
// that no length (a typing error in a camera's file, a register answering
// garbage) makes it allocate more than memory holds, every register that an
// access to `start` may reach (its links::reads, `start` included) is
// measured first, each after the nodes its own length depends on, and one
// longer than the longest register get_register reads is refused. A length
// that cannot be computed is left to the access itself to report.
void check_register_lengths(ArvGcNode *start, const std::string &name) {
    std::unordered_set<ArvGcNode *> seen{start};
    walk_reads(
        start, [&](ArvGcNode *next) { return seen.insert(next).second; },
        [&](ArvGcNode *measured) {
            if (!ARV_IS_GC_REGISTER(measured)) return;
            GError *error = nullptr;
            const guint64 length = arv_gc_register_get_length(ARV_GC_REGISTER(measured), &error);
            if (error != nullptr) {
                g_error_free(error);
                return;
            }
            if (length > kMaxDescriptionSize)
                throw genapi_error("register '" +
                                       text_or_empty(arv_gc_feature_node_get_name(ARV_GC_FEATURE_NODE(measured))) +
                                       "' too long (" + std::to_string(length) + " bytes)",
                                   name);
        });
}

}  // namespace

struct CNodeMapRef::Impl {
    Impl() : device(pelorin::nodemap::port_device_new()) {}
    ~Impl() {
        // The genicam first: it refers to the device.
        if (genicam != nullptr) g_object_unref(genicam);
        g_object_unref(device);
    }
    Impl(const Impl &) = delete;
    Impl &operator=(const Impl &) = delete;

    void load(const char *xml, size_t size) {
        if (genicam != nullptr) throw genapi_error("a description is already loaded");
        if (size == 0) throw genapi_error("empty description");
        pelorin::nodemap::check_well_formed(xml, size);
        ArvGc *loaded = arv_gc_new(device, xml, size);
        if (loaded == nullptr) throw genapi_error("not a register description Aravis can read");
        if (ArvGcNode *looping = node_on_read_cycle(loaded)) {
            const std::string name =
                text_or_empty(arv_gc_feature_node_get_name(ARV_GC_FEATURE_NODE(looping)));
            g_object_unref(loaded);
            throw genapi_error("its value, range, access or address is read through itself", name);
        }
        // Setters check their value against the node's range and the node's
        // access. Aravis's register cache stays off: the registers change
        // behind the map (a module's own state, a camera's status) and Aravis
        // offers no way to drop cached values from outside, so every read
        // goes to the port.
        arv_gc_set_range_check_policy(loaded, ARV_RANGE_CHECK_POLICY_ENABLE);
        arv_gc_set_access_check_policy(loaded, ARV_ACCESS_CHECK_POLICY_ENABLE);
        arv_gc_set_register_cache_policy(loaded, ARV_REGISTER_CACHE_POLICY_DISABLE);
        pelorin::nodemap::port_device_set_genicam(device, loaded, xml, size);
        genicam = loaded;
    }

    // The node of that name, or null. Enumeration entries go by their
    // GenApi names, "EnumEntry_<enumeration>_<entry>", unless named so
    // already (Aravis itself does not look them up).
    ArvGcNode *find(const std::string &name) const {
        if (genicam == nullptr) return nullptr;
        ArvGcNode *found = arv_gc_get_node(genicam, name.c_str());
        if (ARV_IS_GC_FEATURE_NODE(found)) return found;
        if (name.rfind(kEntryPrefix, 0) != 0) return nullptr;
        // The enumeration's name may hold '_' too: try every split.
        for (size_t split = name.find('_', kEntryPrefix.size()); split != std::string::npos;
             split = name.find('_', split + 1)) {
            const std::string owner = name.substr(kEntryPrefix.size(), split - kEntryPrefix.size());
            ArvGcNode *enumeration = arv_gc_get_node(genicam, owner.c_str());
            if (!ARV_IS_GC_ENUMERATION(enumeration)) continue;
            for (ArvDomNode *child = arv_dom_node_get_first_child(ARV_DOM_NODE(enumeration));
                 child != nullptr; child = arv_dom_node_get_next_sibling(child)) {
                if (ARV_IS_GC_ENUM_ENTRY(child) &&
                    entry_name(owner, ARV_GC_FEATURE_NODE(child)) == name)
                    return ARV_GC_NODE(child);
            }
        }
        return nullptr;
    }
    ArvGcNode *node(const std::string &name) const {
        if (genicam == nullptr) throw genapi_error("no description loaded", name);
        ArvGcNode *found = find(name);
        if (found == nullptr) throw genapi_error("no such node", name);
        return found;
    }
    static std::string entry_name(const std::string &enumeration, ArvGcFeatureNode *entry) {
        const std::string own = text_or_empty(arv_gc_feature_node_get_name(entry));
        return own.rfind(kEntryPrefix, 0) == 0 ? own : kEntryPrefix + enumeration + "_" + own;
    }
    ArvGcFeatureNode *feature(const std::string &name) const {
        return ARV_GC_FEATURE_NODE(node(name));
    }
    ArvGcInteger *integer(const std::string &name) const {
        ArvGcNode *found = node(name);
        if (!ARV_IS_GC_INTEGER(found) || ARV_IS_GC_ENUMERATION(found))
            throw genapi_error("not an integer node", name);
        check_register_lengths(found, name);
        return ARV_GC_INTEGER(found);
    }
    ArvGcFloat *floating(const std::string &name) const {
        ArvGcNode *found = node(name);
        if (!ARV_IS_GC_FLOAT(found)) throw genapi_error("not a float node", name);
        check_register_lengths(found, name);
        return ARV_GC_FLOAT(found);
    }
    ArvGcBoolean *boolean(const std::string &name) const {
        ArvGcNode *found = node(name);
        if (!ARV_IS_GC_BOOLEAN(found)) throw genapi_error("not a boolean node", name);
        check_register_lengths(found, name);
        return ARV_GC_BOOLEAN(found);
    }
    ArvGcString *string(const std::string &name) const {
        ArvGcNode *found = node(name);
        if (!ARV_IS_GC_STRING(found) || ARV_IS_GC_ENUMERATION(found))
            throw genapi_error("not a string node", name);
        check_register_lengths(found, name);
        return ARV_GC_STRING(found);
    }
    ArvGcCommand *command(const std::string &name) const {
        ArvGcNode *found = node(name);
        if (!ARV_IS_GC_COMMAND(found)) throw genapi_error("not a command node", name);
        check_register_lengths(found, name);
        return ARV_GC_COMMAND(found);
    }
    ArvGcRegister *reg(const std::string &name) const {
        ArvGcNode *found = node(name);
        if (!ARV_IS_GC_REGISTER(found)) throw genapi_error("not a register node", name);
        check_register_lengths(found, name);
        return ARV_GC_REGISTER(found);
    }
    ArvGcEnumeration *enumeration(const std::string &name) const {
        ArvGcNode *found = node(name);
        if (!ARV_IS_GC_ENUMERATION(found)) throw genapi_error("not an enumeration node", name);
        check_register_lengths(found, name);
        return ARV_GC_ENUMERATION(found);
    }
    ArvGcCategory *category(const std::string &name) const {
        ArvGcNode *found = node(name);
        if (!ARV_IS_GC_CATEGORY(found)) throw genapi_error("not a category node", name);
        return ARV_GC_CATEGORY(found);
    }

    std::vector<enum_entry_info> entries(const std::string &name) const {
        std::vector<enum_entry_info> list;
        // The element's children rather than Aravis's entry list, which runs
        // backwards: entries come in the order of the description.
        for (ArvDomNode *child = arv_dom_node_get_first_child(ARV_DOM_NODE(enumeration(name)));
             child != nullptr; child = arv_dom_node_get_next_sibling(child)) {
            if (!ARV_IS_GC_ENUM_ENTRY(child)) continue;
            ArvGcEnumEntry *entry = ARV_GC_ENUM_ENTRY(child);
            ArvGcFeatureNode *entry_feature = ARV_GC_FEATURE_NODE(entry);
            enum_entry_info info;
            info.name = text_or_empty(arv_gc_feature_node_get_name(entry_feature));
            check_register_lengths(ARV_GC_NODE(entry), info.name);
            const char *shown = arv_gc_feature_node_get_display_name(entry_feature);
            info.display_name = shown != nullptr ? shown : info.name;
            info.value = checked(info.name,
                                 [&](GError **e) { return arv_gc_enum_entry_get_value(entry, e); });
            info.access = presence(entry_feature, info.name).value_or(RO);
            list.push_back(std::move(info));
        }
        return list;
    }

    // The entry a setter names, refused unless it can be chosen.
    static void selectable(const enum_entry_info *entry, const std::string &name,
                           const std::string &what) {
        if (entry == nullptr) throw genapi_error("no entry " + what, name);
        if (entry->access == NI || entry->access == NA)
            throw genapi_error("entry '" + entry->name + "' cannot be chosen now", name);
    }

    // A node-change callback and the nodes its node is computed from.
    struct registration {
        ArvGcNode *node;
        node_callback callback;
        std::unordered_set<ArvGcNode *> inputs;
    };

    // Recursive: a register write of a command (a user set being saved or
    // loaded) may use the same node map again on the same thread.
    mutable std::recursive_mutex lock;
    std::vector<registration> registrations;
    ArvDevice *const device;
    ArvGc *genicam = nullptr;
    std::string port_name;  // of the connected Port node
};

CNodeMapRef::CNodeMapRef(const std::string &device_name) : device_name_(device_name) {
    pelorin::nodemap::ensure_aravis_runtime();
    impl_ = std::make_unique<Impl>();
}

CNodeMapRef::~CNodeMapRef() = default;

bool CNodeMapRef::loaded() const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    return impl_->genicam != nullptr;
}

void CNodeMapRef::_LoadXMLFromString(const std::string &xml) {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    impl_->load(xml.data(), xml.size());
}

void CNodeMapRef::_LoadXMLFromFile(const std::string &path) {
    const std::string xml = read_whole_file(path);
    _LoadXMLFromString(xml);
}

void CNodeMapRef::_LoadXMLFromZIPFile(const std::string &path) {
    const std::string zip = read_whole_file(path);
    _LoadXMLFromZIPData(zip.data(), zip.size());
}

void CNodeMapRef::_LoadXMLFromZIPData(const void *data, size_t size) {
    using pelorin::nodemap::zip_entry;
    const std::vector<zip_entry> entries = pelorin::nodemap::read_zip_directory(data, size);
    const auto xml_entry = std::find_if(entries.begin(), entries.end(),
                                        [](const zip_entry &e) { return ends_with_xml(e.name); });
    if (xml_entry == entries.end()) throw genapi_error("the zip archive holds no .xml entry");
    if (xml_entry->uncompressed_size == 0 || xml_entry->uncompressed_size > kMaxDescriptionSize)
        throw genapi_error("zip entry '" + xml_entry->name + "' has an unusable size");

    std::unique_ptr<ArvZip, decltype(&arv_zip_free)> zip(arv_zip_new(data, size), arv_zip_free);
    if (!zip) throw genapi_error("bad zip archive");
    size_t xml_size = 0;
    std::unique_ptr<void, decltype(&g_free)> xml(
        arv_zip_get_file(zip.get(), xml_entry->name.c_str(), &xml_size), g_free);
    if (!xml || xml_size != xml_entry->uncompressed_size ||
        pelorin::nodemap::zip_crc32(xml.get(), xml_size) != xml_entry->crc32)
        throw genapi_error("zip entry '" + xml_entry->name + "' cannot be unpacked");

    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    impl_->load(static_cast<const char *>(xml.get()), xml_size);
}

bool CNodeMapRef::_Connect(IPort *port, const std::string &port_name) {
    if (port == nullptr) return false;
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    if (impl_->genicam == nullptr) return false;
    if (!ARV_IS_GC_PORT(arv_gc_get_node(impl_->genicam, port_name.c_str()))) return false;
    IPort *current = pelorin::nodemap::port_device_port(impl_->device);
    if (current != nullptr && current != port && port_name != impl_->port_name) return false;
    pelorin::nodemap::port_device_set_port(impl_->device, port);
    impl_->port_name = port_name;
    return true;
}

std::vector<std::string> CNodeMapRef::node_names() const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    std::vector<std::string> names;
    if (impl_->genicam == nullptr) return names;
    // Every feature element of the document, at any depth (groups, struct
    // registers, entries), that its name leads back to.
    std::vector<ArvDomNode *> pending{
        ARV_DOM_NODE(arv_dom_document_get_document_element(ARV_DOM_DOCUMENT(impl_->genicam)))};
    while (!pending.empty()) {
        ArvDomNode *parent = pending.back();
        pending.pop_back();
        for (ArvDomNode *child = arv_dom_node_get_first_child(parent); child != nullptr;
             child = arv_dom_node_get_next_sibling(child)) {
            if (!ARV_IS_GC_FEATURE_NODE(child)) continue;
            pending.push_back(child);
            ArvGcFeatureNode *feature = ARV_GC_FEATURE_NODE(child);
            std::string name = text_or_empty(arv_gc_feature_node_get_name(feature));
            if (ARV_IS_GC_ENUM_ENTRY(child) && ARV_IS_GC_ENUMERATION(parent))
                name = Impl::entry_name(
                    text_or_empty(arv_gc_feature_node_get_name(ARV_GC_FEATURE_NODE(parent))),
                    feature);
            if (!name.empty() && impl_->find(name) == ARV_GC_NODE(child)) names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

bool CNodeMapRef::has_node(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    return impl_->find(name) != nullptr;
}

node_kind CNodeMapRef::kind(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcNode *node = impl_->node(name);
    // Enumerations also offer the integer and string interfaces: test first.
    if (ARV_IS_GC_ENUMERATION(node)) return node_kind::enumeration;
    if (ARV_IS_GC_ENUM_ENTRY(node)) return node_kind::enum_entry;
    if (ARV_IS_GC_CATEGORY(node)) return node_kind::category;
    if (ARV_IS_GC_COMMAND(node)) return node_kind::command;
    if (ARV_IS_GC_BOOLEAN(node)) return node_kind::boolean;
    if (ARV_IS_GC_PORT(node)) return node_kind::port;
    if (ARV_IS_GC_INTEGER(node)) return node_kind::integer;
    if (ARV_IS_GC_FLOAT(node)) return node_kind::float_number;
    if (ARV_IS_GC_STRING(node)) return node_kind::string;
    if (ARV_IS_GC_REGISTER(node)) return node_kind::register_node;
    return node_kind::other;
}

EAccessMode CNodeMapRef::access_mode(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcNode *node = impl_->node(name);
    check_register_lengths(node, name);
    ArvGcFeatureNode *feature = ARV_GC_FEATURE_NODE(node);
    if (const std::optional<EAccessMode> absent = presence(feature, name)) return *absent;
    if (ARV_IS_GC_ENUM_ENTRY(node)) return RO;
    if (ARV_IS_GC_PORT(node)) {
        IPort *port = pelorin::nodemap::port_device_port(impl_->device);
        return port != nullptr ? port->GetAccessMode() : NA;
    }
    EAccessMode mode = from_aravis(arv_gc_feature_node_get_actual_access_mode(feature));
    if (mode == RW &&
        checked(name, [&](GError **e) { return arv_gc_feature_node_is_locked(feature, e); }))
        mode = RO;
    return mode;
}

node_visibility CNodeMapRef::visibility(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    switch (arv_gc_feature_node_get_visibility(impl_->feature(name))) {
        case ARV_GC_VISIBILITY_INVISIBLE:
            return node_visibility::invisible;
        case ARV_GC_VISIBILITY_GURU:
            return node_visibility::guru;
        case ARV_GC_VISIBILITY_EXPERT:
            return node_visibility::expert;
        default:
            return node_visibility::beginner;
    }
}

std::string CNodeMapRef::display_name(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    const char *shown = arv_gc_feature_node_get_display_name(impl_->feature(name));
    return shown != nullptr ? shown : name;
}

std::string CNodeMapRef::tooltip(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    return text_or_empty(arv_gc_feature_node_get_tooltip(impl_->feature(name)));
}

std::string CNodeMapRef::description(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    return text_or_empty(arv_gc_feature_node_get_description(impl_->feature(name)));
}

number_representation CNodeMapRef::representation(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcNode *node = impl_->node(name);
    ArvGcRepresentation shown;
    if (ARV_IS_GC_INTEGER(node) && !ARV_IS_GC_ENUMERATION(node))
        shown = arv_gc_integer_get_representation(ARV_GC_INTEGER(node));
    else if (ARV_IS_GC_FLOAT(node))
        shown = arv_gc_float_get_representation(ARV_GC_FLOAT(node));
    else
        throw genapi_error("not an integer or float node", name);
    switch (shown) {
        case ARV_GC_REPRESENTATION_LINEAR:
            return number_representation::linear;
        case ARV_GC_REPRESENTATION_LOGARITHMIC:
            return number_representation::logarithmic;
        case ARV_GC_REPRESENTATION_BOOLEAN:
            return number_representation::boolean;
        case ARV_GC_REPRESENTATION_HEX_NUMBER:
            return number_representation::hex_number;
        case ARV_GC_REPRESENTATION_IPV4_ADDRESS:
            return number_representation::ipv4_address;
        case ARV_GC_REPRESENTATION_MAC_ADDRESS:
            return number_representation::mac_address;
        default:
            return number_representation::pure_number;
    }
}

int64_t CNodeMapRef::get_integer(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcInteger *node = impl_->integer(name);
    return checked(name, [&](GError **e) { return arv_gc_integer_get_value(node, e); });
}

void CNodeMapRef::set_integer(const std::string &name, int64_t value) {
    {
        std::lock_guard<std::recursive_mutex> guard(impl_->lock);
        ArvGcInteger *node = impl_->integer(name);
        // Aravis checks the range; the increment is ours to check.
        const int64_t inc =
            checked(name, [&](GError **e) { return arv_gc_integer_get_inc(node, e); });
        if (inc > 1) {
            const int64_t min =
                checked(name, [&](GError **e) { return arv_gc_integer_get_min(node, e); });
            if ((static_cast<__int128>(value) - min) % inc != 0)
                throw genapi_error(std::to_string(value) + " is off the increment " +
                                       std::to_string(inc) + " from " + std::to_string(min),
                                   name);
        }
        checked(name, [&](GError **e) { arv_gc_integer_set_value(node, value, e); });
    }
    node_changed(name);
}

int64_t CNodeMapRef::integer_min(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcInteger *node = impl_->integer(name);
    // A formula has no range of its own: GenICam gives it the whole int64
    // range, which Aravis does not answer for.
    if (ARV_IS_GC_SWISS_KNIFE(node)) return std::numeric_limits<int64_t>::min();
    return checked(name, [&](GError **e) { return arv_gc_integer_get_min(node, e); });
}

int64_t CNodeMapRef::integer_max(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcInteger *node = impl_->integer(name);
    if (ARV_IS_GC_SWISS_KNIFE(node)) return std::numeric_limits<int64_t>::max();
    return checked(name, [&](GError **e) { return arv_gc_integer_get_max(node, e); });
}

int64_t CNodeMapRef::integer_inc(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcInteger *node = impl_->integer(name);
    return checked(name, [&](GError **e) { return arv_gc_integer_get_inc(node, e); });
}

double CNodeMapRef::get_float(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcFloat *node = impl_->floating(name);
    return checked(name, [&](GError **e) { return arv_gc_float_get_value(node, e); });
}

void CNodeMapRef::set_float(const std::string &name, double value) {
    {
        std::lock_guard<std::recursive_mutex> guard(impl_->lock);
        ArvGcFloat *node = impl_->floating(name);
        // A NaN passes every range comparison.
        if (std::isnan(value)) throw genapi_error("NaN is out of range", name);
        checked(name, [&](GError **e) { arv_gc_float_set_value(node, value, e); });
    }
    node_changed(name);
}

double CNodeMapRef::float_min(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcFloat *node = impl_->floating(name);
    return checked(name, [&](GError **e) { return arv_gc_float_get_min(node, e); });
}

double CNodeMapRef::float_max(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcFloat *node = impl_->floating(name);
    return checked(name, [&](GError **e) { return arv_gc_float_get_max(node, e); });
}

std::optional<double> CNodeMapRef::float_inc(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcFloat *node = impl_->floating(name);
    if (find_property(ARV_GC_NODE(node), ARV_GC_PROPERTY_NODE_TYPE_INCREMENT,
                      ARV_GC_PROPERTY_NODE_TYPE_P_INCREMENT) == nullptr)
        return std::nullopt;
    return checked(name, [&](GError **e) { return arv_gc_float_get_inc(node, e); });
}

std::string CNodeMapRef::float_unit(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    return text_or_empty(arv_gc_float_get_unit(impl_->floating(name)));
}

bool CNodeMapRef::get_boolean(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcBoolean *node = impl_->boolean(name);
    return checked(name, [&](GError **e) { return arv_gc_boolean_get_value(node, e); }) != FALSE;
}

void CNodeMapRef::set_boolean(const std::string &name, bool value) {
    {
        std::lock_guard<std::recursive_mutex> guard(impl_->lock);
        ArvGcBoolean *node = impl_->boolean(name);
        checked(name, [&](GError **e) { arv_gc_boolean_set_value(node, value ? TRUE : FALSE, e); });
    }
    node_changed(name);
}

std::string CNodeMapRef::get_string(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcString *node = impl_->string(name);
    return text_or_empty(
        checked(name, [&](GError **e) { return arv_gc_string_get_value(node, e); }));
}

void CNodeMapRef::set_string(const std::string &name, const std::string &value) {
    {
        std::lock_guard<std::recursive_mutex> guard(impl_->lock);
        ArvGcString *node = impl_->string(name);
        if (value.find('\0') != std::string::npos)
            throw genapi_error("a string value cannot hold a NUL character", name);
        const int64_t max_length =
            checked(name, [&](GError **e) { return arv_gc_string_get_max_length(node, e); });
        if (static_cast<int64_t>(value.size()) > max_length)
            throw genapi_error(std::to_string(value.size()) + " characters exceed the maximum " +
                                   std::to_string(max_length),
                               name);
        checked(name, [&](GError **e) { arv_gc_string_set_value(node, value.c_str(), e); });
    }
    node_changed(name);
}

int64_t CNodeMapRef::string_max_length(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcString *node = impl_->string(name);
    return checked(name, [&](GError **e) { return arv_gc_string_get_max_length(node, e); });
}

void CNodeMapRef::execute(const std::string &name) {
    {
        std::lock_guard<std::recursive_mutex> guard(impl_->lock);
        ArvGcCommand *node = impl_->command(name);
        checked(name, [&](GError **e) { arv_gc_command_execute(node, e); });
    }
    node_changed(name);
}

bool CNodeMapRef::is_done(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcNode *node = ARV_GC_NODE(impl_->command(name));
    ArvGcPropertyNode *target = find_property(node, ARV_GC_PROPERTY_NODE_TYPE_P_VALUE,
                                              ARV_GC_PROPERTY_NODE_TYPE_P_VALUE);
    ArvGcPropertyNode *command_value =
        find_property(node, ARV_GC_PROPERTY_NODE_TYPE_COMMAND_VALUE,
                      ARV_GC_PROPERTY_NODE_TYPE_P_COMMAND_VALUE);
    if (target == nullptr || command_value == nullptr) return true;
    ArvGcNode *value_node = arv_gc_property_node_get_linked_node(target);
    if (!ARV_IS_GC_INTEGER(value_node) ||
        arv_gc_feature_node_get_actual_access_mode(ARV_GC_FEATURE_NODE(value_node)) ==
            ARV_GC_ACCESS_MODE_WO)
        return true;
    const int64_t armed = checked(
        name, [&](GError **e) { return arv_gc_property_node_get_int64(command_value, e); });
    const int64_t now = checked(
        name, [&](GError **e) { return arv_gc_integer_get_value(ARV_GC_INTEGER(value_node), e); });
    return now != armed;
}

std::vector<uint8_t> CNodeMapRef::get_register(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcRegister *node = impl_->reg(name);
    const guint64 length =
        checked(name, [&](GError **e) { return arv_gc_register_get_length(node, e); });
    if (length > kMaxDescriptionSize) throw genapi_error("register too long", name);
    std::vector<uint8_t> bytes(static_cast<size_t>(length));
    checked(name, [&](GError **e) { arv_gc_register_get(node, bytes.data(), length, e); });
    return bytes;
}

void CNodeMapRef::set_register(const std::string &name, const void *data, size_t size) {
    {
        std::lock_guard<std::recursive_mutex> guard(impl_->lock);
        ArvGcRegister *node = impl_->reg(name);
        const guint64 length =
            checked(name, [&](GError **e) { return arv_gc_register_get_length(node, e); });
        if (data == nullptr || size != length)
            throw genapi_error(std::to_string(size) + " bytes given for a register of " +
                                   std::to_string(length),
                               name);
        checked(name, [&](GError **e) { arv_gc_register_set(node, data, size, e); });
    }
    node_changed(name);
}

int64_t CNodeMapRef::register_length(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcRegister *node = impl_->reg(name);
    return static_cast<int64_t>(
        checked(name, [&](GError **e) { return arv_gc_register_get_length(node, e); }));
}

std::vector<enum_entry_info> CNodeMapRef::enum_entries(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    return impl_->entries(name);
}

std::string CNodeMapRef::get_enum(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcEnumeration *node = impl_->enumeration(name);
    const char *entry =
        checked(name, [&](GError **e) { return arv_gc_enumeration_get_string_value(node, e); });
    if (entry == nullptr) throw genapi_error("the value matches no entry", name);
    return entry;
}

int64_t CNodeMapRef::get_enum_value(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcEnumeration *node = impl_->enumeration(name);
    return checked(name, [&](GError **e) { return arv_gc_enumeration_get_int_value(node, e); });
}

bool CNodeMapRef::read_integer(const std::string &name, int64_t &value) const noexcept {
    try {
        value = kind(name) == pelorin::nodemap::node_kind::enumeration ? get_enum_value(name)
                                                                       : get_integer(name);
        return true;
    } catch (const std::exception &) {
        return false;
    }
}

void CNodeMapRef::set_enum(const std::string &name, const std::string &entry) {
    {
        std::lock_guard<std::recursive_mutex> guard(impl_->lock);
        const std::vector<enum_entry_info> list = impl_->entries(name);
        const auto found = std::find_if(list.begin(), list.end(),
                                        [&](const enum_entry_info &e) { return e.name == entry; });
        Impl::selectable(found != list.end() ? &*found : nullptr, name, "'" + entry + "'");
        ArvGcEnumeration *node = impl_->enumeration(name);
        checked(name, [&](GError **e) {
            return arv_gc_enumeration_set_string_value(node, entry.c_str(), e);
        });
    }
    node_changed(name);
}

void CNodeMapRef::set_enum_value(const std::string &name, int64_t value) {
    {
        std::lock_guard<std::recursive_mutex> guard(impl_->lock);
        const std::vector<enum_entry_info> list = impl_->entries(name);
        const auto found = std::find_if(list.begin(), list.end(),
                                        [&](const enum_entry_info &e) { return e.value == value; });
        Impl::selectable(found != list.end() ? &*found : nullptr, name,
                         "of value " + std::to_string(value));
        ArvGcEnumeration *node = impl_->enumeration(name);
        checked(name, [&](GError **e) { return arv_gc_enumeration_set_int_value(node, value, e); });
    }
    node_changed(name);
}

std::vector<std::string> CNodeMapRef::category_features(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    std::vector<std::string> features;
    for (const GSList *item = arv_gc_category_get_features(impl_->category(name)); item != nullptr;
         item = item->next)
        features.emplace_back(static_cast<const char *>(item->data));
    return features;
}

bool CNodeMapRef::is_register(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    return ARV_IS_GC_REGISTER(impl_->node(name));
}

uint64_t CNodeMapRef::register_address(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcRegister *node = impl_->reg(name);
    return checked(name, [&](GError **e) { return arv_gc_register_get_address(node, e); });
}

const char *CNodeMapRef::description_text() const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    if (impl_->genicam == nullptr) return "";
    size_t size = 0;
    const char *xml = arv_device_get_genicam_xml(impl_->device, &size);
    return xml != nullptr ? xml : "";
}

void *CNodeMapRef::node_handle(const std::string &name) const {
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    return impl_->node(name);
}

void CNodeMapRef::register_callback(const std::string &name, node_callback callback) {
    if (callback == nullptr) throw genapi_error("no callback given", name);
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
    ArvGcNode *node = impl_->node(name);
    for (const Impl::registration &known : impl_->registrations)
        if (known.node == node && known.callback == callback) return;
    impl_->registrations.push_back({node, callback, reachable(node, links::inputs)});
}

void CNodeMapRef::node_changed(const std::string &name) {
    std::vector<std::pair<node_callback, void *>> due;
    {
        std::lock_guard<std::recursive_mutex> guard(impl_->lock);
        if (impl_->registrations.empty()) return;
        ArvGcNode *written = impl_->node(name);
        std::unordered_set<ArvGcNode *> changed = reachable(written, links::values_only);
        std::vector<ArvGcNode *> selected;
        linked_nodes(written, links::selected, selected);
        changed.insert(selected.begin(), selected.end());
        for (const Impl::registration &r : impl_->registrations) {
            const bool affected = std::any_of(changed.begin(), changed.end(),
                                              [&](ArvGcNode *n) { return r.inputs.count(n) != 0; });
            if (affected) due.emplace_back(r.callback, r.node);
        }
    }
    for (const auto &[callback, node] : due) callback(node);
}

void CNodeMapRef::invalidate() {
    // Aravis's register cache is off (see Impl::load): nothing is kept, and
    // every read already goes to the port. Taking the lock orders this call
    // after any access in flight.
    std::lock_guard<std::recursive_mutex> guard(impl_->lock);
}
