#include <sstream>

#include <fmt/format.h>
#include <pugixml.hpp>

#include "core/core.h"
#include "params/params.h"

namespace orv::params {

namespace {

pugi::xml_node parametersNode(const pugi::xml_document& doc) {
    const auto root = doc.child("root");
    return root ? root.child("parameters") : doc.child("parameters");
}

pugi::xml_node findParameter(pugi::xml_node parameters, const std::string& name) {
    return parameters.find_child_by_attribute("parameter", "name", name.c_str());
}

// parameters.xml is written whole to a temporary file and renamed, so a crash keeps the old one.
bool saveDocument(const pugi::xml_document& doc, const fs::path& file) {
    std::ostringstream out;
    doc.save(out, "\t", pugi::format_default, pugi::encoding_utf8);
    if (core::writeText(out.str(), file, false)) return true;
    core::log(fmt::format("saving: {} failed", file.string()));
    return false;
}

void logValue(const std::string& name, const std::string& shown) {
    if (!core::gRun.stopRequested) core::log(fmt::format("{}={}", name, shown));
}
void logValue(const BoolParameter& p) {
    logValue(p.name, p.value ? "true" : "false");
}
void logValue(const IntParameter& p) {
    logValue(p.name, std::to_string(p.value));
}
void logValue(const StringParameter& p) {
    logValue(p.name, fmt::format("\"{}\"", p.value));
}

void showControl(const CheckBoxParameter& p) {
    if (p.windowHandle) p.windowHandle->setChecked(p.controlId, p.value);
}
void showControl(const ChoiceIntParameter& p) {
    if (p.windowHandle) p.windowHandle->setText(p.controlId, std::to_string(p.value));
}
void showControl(const TextParameter& p) {
    if (p.windowHandle) p.windowHandle->setText(p.controlId, p.value);
}

bool appendValue(pugi::xml_node parameters, const std::string& name, const std::string& value) {
    auto e = parameters.append_child("parameter");
    const bool ok = e && e.append_attribute("name").set_value(name.c_str()) &&
                    e.append_attribute("value").set_value(value.c_str());
    if (!ok) core::log(fmt::format("{}adding xml parameter {} with {} failed!", "===> ", name, value));
    return ok;
}

std::string text(bool v) {
    return v ? "true" : "false";
}
std::string text(std::int32_t v) {
    return std::to_string(v);
}
const std::string& text(const std::string& v) {
    return v;
}

// Visits every listed parameter in file order with its typed value text.
template <typename Fn>
void forEachListed(const ParameterLists& lists, Fn&& fn) {
    for (auto* p : lists.bools) fn(*p);
    for (auto* p : lists.checkBoxes) fn(*p);
    for (auto* p : lists.ints) fn(*p);
    for (auto* p : lists.choiceInts) fn(*p);
    for (auto* p : lists.strings) fn(*p);
    for (auto* p : lists.texts) fn(*p);
}

void takeValue(BoolParameter& p, pugi::xml_attribute a) {
    p.value = a.as_bool();
}
void takeValue(IntParameter& p, pugi::xml_attribute a) {
    p.value = std::clamp(a.as_int(p.defaultValue), p.minimum, p.maximum);
}
void takeValue(StringParameter& p, pugi::xml_attribute a) {
    p.value = a.as_string();
}

template <typename P>
void showIfControl(P& p) {
    if constexpr (std::is_base_of_v<ControlBinding, P>) showControl(p);
}

template <typename P>
void updateOne(const fs::path& file, const ParameterLists& lists, const P& p) {
    const std::string value = text(p.value);
    pugi::xml_document doc;
    if (const auto r = doc.load_file(file.c_str()); !r && r.status != pugi::status_file_not_found) {
        // One setting must not become the whole file: the settings in use are written instead.
        core::log(fmt::format("{} cannot be read ({}): written anew from the settings in use", file.string(),
                              r.description()));
        logValue(p);
        saveParameters(file, lists, false);
        return;
    } else if (!r) {
        pugi::xml_document fresh;
        appendValue(fresh.append_child("root").append_child("parameters"), p.name, value);
        (void)saveDocument(fresh, file);
        logValue(p);
        return;
    }
    const bool hasRoot = static_cast<bool>(doc.child("root"));
    auto parameters = parametersNode(doc);
    if (!parameters) parameters = (hasRoot ? doc.child("root") : doc.root()).append_child("parameters");
    bool matched = false;
    for (auto e : parameters.children("parameter")) {
        if (p.name != e.attribute("name").as_string()) continue;
        auto v = e.attribute("value");
        if (!v) v = e.append_attribute("value");
        v.set_value(value.c_str());
        matched = true;
    }
    if (!matched) appendValue(parameters, p.name, value);
    logValue(p);
    if (hasRoot) {
        (void)saveDocument(doc, file);
        return;
    }
    core::log("\nPlacing a root level around a new parameters.xml to make it 100% xml compliance\n");
    std::error_code ec;
    fs::remove(file, ec);
    saveParameters(file, lists, false);
}

} // namespace

std::optional<std::int32_t> readIntParameter(const pugi::xml_document& doc, const std::string& name) {
    const auto e = findParameter(parametersNode(doc), name);
    if (!e || !e.attribute("value")) return std::nullopt;
    return e.attribute("value").as_int();
}

std::optional<bool> readBoolParameter(const pugi::xml_document& doc, const std::string& name) {
    const auto e = findParameter(parametersNode(doc), name);
    if (!e || !e.attribute("value")) return std::nullopt;
    return e.attribute("value").as_bool();
}

std::optional<std::string> readStringParameter(const pugi::xml_document& doc, const std::string& name) {
    const auto e = findParameter(parametersNode(doc), name);
    if (!e || !e.attribute("value")) return std::nullopt;
    return std::string(e.attribute("value").as_string());
}

std::optional<WindowPosition> readWindowPosition(const fs::path& file) {
    pugi::xml_document doc;
    if (!doc.load_file(file.c_str())) return std::nullopt;
    const auto x = readIntParameter(doc, "MAIN_WINDOW_X"), y = readIntParameter(doc, "MAIN_WINDOW_Y");
    if (!x || !y) return std::nullopt;
    return WindowPosition{std::clamp(*x, -30000, 30000), std::clamp(*y, -30000, 30000)};
}

std::optional<std::size_t> selectedIndex(const ChoiceIntParameter& p) {
    for (std::size_t i = 0; i < p.allowedValues.size(); ++i)
        if (p.allowedValues[i] == p.value) return i;
    return std::nullopt;
}

void saveParameters(const fs::path& file, const ParameterLists& lists, bool writeDefaults) {
    pugi::xml_document doc;
    auto parameters = doc.append_child("root").append_child("parameters");
    forEachListed(lists, [&](auto& p) {
        if (writeDefaults) p.value = p.defaultValue;
        appendValue(parameters, p.name, text(p.value));
        showIfControl(p);
    });
    // The version's default stays empty: migration tells a fresh file from a stored version by it.
    if (writeDefaults && lists.programVersion) {
        lists.programVersion->value =
            fmt::format("{}.{}.{}", core::kVersion.major, core::kVersion.minor, core::kVersion.patch);
        findParameter(parameters, lists.programVersion->name)
            .attribute("value")
            .set_value(lists.programVersion->value.c_str());
    }
    (void)saveDocument(doc, file);
}

bool loadParameters(const fs::path& file, const ParameterLists& lists) {
    core::log("--- parameters ---");
    pugi::xml_document doc;
    const bool loaded = static_cast<bool>(doc.load_file(file.c_str()));
    if (loaded) core::log(fmt::format("from '{}'", file.string()));
    auto parameters = loaded ? parametersNode(doc) : pugi::xml_node();
    if (!parameters) {
        core::log(fmt::format("{} not found, creating new with default values:", file.string()));
        saveParameters(file, lists, true);
        forEachListed(lists, [](auto& p) { logValue(p); });
        return true;
    }
    forEachListed(lists, [&](auto& p) {
        auto e = findParameter(parameters, p.name);
        if (e && e.attribute("value")) {
            takeValue(p, e.attribute("value"));
        } else if (e) {
            p.value = p.defaultValue;
            e.append_attribute("value").set_value(text(p.value).c_str());
        } else {
            p.value = p.defaultValue;
            appendValue(parameters, p.name, text(p.value));
        }
        showIfControl(p);
    });
    (void)saveDocument(doc, file);
    forEachListed(lists, [](auto& p) { logValue(p); });
    return false;
}

void updateParameter(const fs::path& file, const ParameterLists& lists, const BoolParameter& p) {
    updateOne(file, lists, p);
}
void updateParameter(const fs::path& file, const ParameterLists& lists, const IntParameter& p) {
    updateOne(file, lists, p);
}
void updateParameter(const fs::path& file, const ParameterLists& lists, const StringParameter& p) {
    updateOne(file, lists, p);
}

namespace {

template <typename P, typename V>
void setOne(P& p, V value, Save save) {
    p.value = std::move(value);
    gParams.mirror(p);
    if (auto* c = dynamic_cast<CheckBoxParameter*>(&p)) showControl(*c);
    if (auto* c = dynamic_cast<ChoiceIntParameter*>(&p)) showControl(*c);
    if (auto* c = dynamic_cast<TextParameter*>(&p)) showControl(*c);
    if (save == Save::yes) updateOne(core::gPaths.dataFolder / names::kParameters, parameterLists(), p);
}

} // namespace

void set(BoolParameter& p, bool value, Save save) {
    setOne(p, value, save);
}
void set(IntParameter& p, std::int32_t value, Save save) {
    setOne(p, std::clamp(value, p.minimum, p.maximum), save);
}
void set(StringParameter& p, std::string value, Save save) {
    setOne(p, std::move(value), save);
}

void checkParameterFile(const fs::path& file) {
    // What a crash while saving left: the file itself is either the old one or the new one.
    std::error_code walk;
    const std::string prefix = file.filename().string() + ".";
    for (const auto& e : fs::directory_iterator(file.parent_path(), walk)) {
        const std::string name = e.path().filename().string();
        std::error_code ignored;
        if (name.starts_with(prefix) && name.ends_with(".tmp")) fs::remove(e.path(), ignored);
    }
    if (!fs::exists(file)) return;
    pugi::xml_document doc;
    const auto r = doc.load_file(file.c_str());
    if (r) return;
    std::error_code ec;
    if (r.status == pugi::status_no_document_element) {
        // No element in it, nothing to keep: an earlier parameters.0.xml is worth more.
        core::log(fmt::format("{} is empty: removed", file.string()));
        fs::remove(file, ec);
        return;
    }
    core::log(
        fmt::format("{} failed to load ({}). Saved as 0.xml and removed.", file.string(), r.description()));
    fs::path keep = file;
    keep.replace_extension(".0" + file.extension().string());
    fs::copy_file(file, keep, fs::copy_options::overwrite_existing, ec);
    fs::remove(file, ec);
}

} // namespace orv::params

namespace orv::params {

void appendMeta(pugi::xml_node root) {
    auto meta = root.append_child("meta");
    const auto* choice = dynamic_cast<const StringParameter*>(findParameter("SIM_CHOICE"));
    const bool sim2024 = choice && choice->value == "MSFS 2024";
    const std::pair<const char*, std::string> rows[] = {
        {"author", std::string(core::kAppName)},
        {"version",
         fmt::format("{}.{}.{}", core::kVersion.major, core::kVersion.minor, core::kVersion.patch)},
        {"date", core::timeText()},
        {"copyright", fmt::format("{} data, free to use with the program", core::kAppName)},
        {"sim", sim2024 ? "2" : "1"},
    };
    for (const auto& [name, value] : rows) {
        auto info = meta.append_child("info");
        info.append_attribute("name").set_value(name);
        info.append_attribute("value").set_value(value.c_str());
    }
}

bool metaValid(pugi::xml_node root, bool strict) {
    const auto meta = root.child("meta");
    if (!meta) return false;
    bool copyright = false, sim = false;
    for (const auto info : meta.children("info")) {
        const std::string_view name = info.attribute("name").value();
        if (name == "copyright" && *info.attribute("value").value()) copyright = true;
        if (name == "P3D" || name == "MSFS" || name == "sim") sim = true;
    }
    if (!copyright) core::log("no copyright info in the file?");
    return copyright && (sim || !strict);
}

} // namespace orv::params
