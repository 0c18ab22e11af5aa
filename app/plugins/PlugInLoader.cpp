// SPDX-License-Identifier: Apache-2.0
#include "app/plugins/PlugInLoader.h"

#include "host/VELModels/StreamFacts.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"
#include "host/VELModels/VELPlugInsController.h"
#include "host/VELModels/VELStreamInterpreting.h"
#include "platform/Bundle.h"

#include <algorithm>
#include <cstdlib>
#include <dlfcn.h>
#include <exception>
#include <expected>
#include <fmt/format.h>
#include <iterator>
#include <memory>
#include <set>
#include <sys/auxv.h>
#include <utility>

namespace sealscope {

namespace {

namespace fs = std::filesystem;

/// What was loaded. Principal objects live as long as the process: nothing is torn down while it ends, when half of it is gone.
struct Loaded {
    std::vector<LoadedPlugIn> plugIns;
    std::vector<std::unique_ptr<VELPluginPrincipalClassProtocol>> principals;
    std::set<std::string> identifiers;
};

Loaded& loadedSoFar()
{
    static auto& loaded = *new Loaded;
    return loaded;
}

/// What the host has registered at one moment, to take back what came later.
class Registrations {
public:
    void takeBackLaterOnes() const
    {
        for (const auto& registration : VELPlugInsController::sharedManager().plugIns()) {
            const auto same = [&](const auto& other) { return other.plugIn.id == registration.plugIn.id; };
            if (std::ranges::none_of(plugIns_, same)) VELPlugInsController::sharedManager().unregisterVELPlugIn(registration.plugIn.id);
        }
        for (const auto& probe : TLSDecryptionProbeRegistry::shared().snapshot())
            if (std::ranges::find(probes_, probe) == probes_.end()) TLSDecryptionProbeRegistry::shared().unregisterProbe(probe);
        for (const auto* interpreter : VELStreamInterpreterRegistry::shared().snapshot())
            if (std::ranges::find(interpreters_, interpreter) == interpreters_.end())
                VELStreamInterpreterRegistry::shared().remove(interpreter);
        for (const auto& describer : StreamDescriberRegistry::shared().snapshot())
            if (std::ranges::find(describers_, describer) == describers_.end()) StreamDescriberRegistry::shared().remove(describer);
    }

private:
    std::vector<VELPlugInsController::Registration> plugIns_ = VELPlugInsController::sharedManager().plugIns();
    std::vector<std::shared_ptr<const TLSStreamDecryptionProbing>> probes_ = TLSDecryptionProbeRegistry::shared().snapshot();
    std::vector<const VELStreamInterpreting*> interpreters_ = VELStreamInterpreterRegistry::shared().snapshot();
    std::vector<std::shared_ptr<const StreamDescribing>> describers_ = StreamDescriberRegistry::shared().snapshot();
};

using Problem = PlugInProblem;

std::unexpected<Problem> problem(const Bundle& bundle, Problem::Kind kind, std::string detail = {})
{
    return std::unexpected(Problem{.bundle = bundle.path(), .kind = kind, .detail = std::move(detail)});
}

std::unexpected<Problem> otherVersion(const Bundle& bundle, std::int64_t version)
{
    return std::unexpected(Problem{.bundle = bundle.path(), .kind = Problem::Kind::otherVersion, .version = version});
}

/// The dynamic linker's last complaint, without the path that begins it.
std::string linkerReason(const fs::path& module)
{
    const char* message = dlerror();
    std::string_view reason = message ? message : "the dynamic linker gives no reason";
    if (reason.starts_with(module.native() + ": ")) reason.remove_prefix(module.native().size() + 2);
    return std::string(reason);
}

/// The module that the information dictionary names, inside the bundle.
std::expected<fs::path, Problem> moduleOf(const Bundle& bundle)
{
    const std::string name = bundle.infoString("CFBundleExecutable").value_or(bundle.path().stem().string() + ".so");
    if (name.empty() || name.contains('/') || name == "..") return problem(bundle, Problem::Kind::moduleIsOutside, name);
    const fs::path module = bundle.path() / name;
    std::error_code error;
    if (!fs::is_regular_file(module, error)) return problem(bundle, Problem::Kind::hasNoModule, name);
    return module;
}

std::expected<const VELPrincipalClass*, Problem> principalClassOf(const Bundle& bundle)
{
    // Asked before any of the bundle's code runs; the module's own word is taken below.
    if (const auto version = bundle.infoDictionary().find("VELContractVersion"); version != bundle.infoDictionary().end())
        if (const auto* number = std::get_if<std::int64_t>(&version->second); number && *number != velContractVersion)
            return otherVersion(bundle, *number);

    const auto module = moduleOf(bundle);
    if (!module) return std::unexpected(module.error());
    // Never closed: the host keeps pointers into the module for good.
    void* handle = dlopen(module->c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) return problem(bundle, Problem::Kind::doesNotLoad, linkerReason(*module));

    const auto* entry = static_cast<const VELBundleEntry*>(dlsym(handle, "velBundleEntry"));
    if (!entry) return problem(bundle, Problem::Kind::hasNoEntry);
    if (entry->contractVersion != velContractVersion) return otherVersion(bundle, entry->contractVersion);
    if (!entry->principalClass || !entry->principalClass->create) return problem(bundle, Problem::Kind::hasNoPrincipalClass);
    return entry->principalClass;
}

std::expected<LoadedPlugIn, Problem> load(const Bundle& bundle)
{
    const auto principalClass = principalClassOf(bundle);
    if (!principalClass) return std::unexpected(principalClass.error());

    const Registrations before;
    auto failure = problem(bundle, Problem::Kind::gaveNoObject);
    try {
        if (auto principal = (*principalClass)->create()) {
            loadedSoFar().principals.push_back(std::move(principal));
            return LoadedPlugIn{bundle.path(), *principalClass, loadedSoFar().principals.back().get()};
        }
    } catch (const std::exception& error) {
        failure = problem(bundle, Problem::Kind::failed, error.what());
    } catch (...) {
        failure = problem(bundle, Problem::Kind::failedSilently);
    }
    before.takeBackLaterOnes();
    return failure;
}

/// The bundles in a folder, by name; the folder itself when it is a bundle.
std::vector<fs::path> bundlesIn(const fs::path& folder, std::error_code& error)
{
    if (folder.extension() == ".bundle" && fs::is_directory(folder)) return {folder};
    std::vector<fs::path> bundles;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
        if (entry->path().extension() == ".bundle") bundles.push_back(entry->path());
    std::ranges::sort(bundles);
    return bundles;
}

std::vector<fs::path> foldersOfEnvironment()
{
    std::vector<fs::path> folders;
    const char* variable = std::getenv("SEALSCOPE_PLUGIN_PATH");
    std::string_view rest = variable ? variable : "";
    while (!rest.empty()) {
        const std::string_view folder = rest.substr(0, rest.find(':'));
        if (!folder.empty()) folders.emplace_back(folder);
        rest.remove_prefix(std::min(rest.size(), folder.size() + 1));
    }
    return folders;
}

class Loading {
public:
    explicit Loading(PlugInPurpose purpose) : purpose_(purpose) {}

    void addFolder(const fs::path& folder)
    {
        std::error_code error;
        const std::vector<fs::path> bundles = bundlesIn(folder.lexically_normal(), error);
        if (error) addProblem({.bundle = folder, .kind = Problem::Kind::cannotBeSearched, .detail = error.message()});
        for (const fs::path& path : bundles) addBundle(path);
    }

    void addProblem(Problem problem) { result_.problems.push_back(std::move(problem)); }

    PlugInLoading result() &&
    {
        if (loadedSoFar().plugIns.empty() && result_.problems.empty() && !hasLeftOut_)
            addProblem({.bundle = PlugInLoader::ownFolder(), .kind = Problem::Kind::holdsNothing});
        return std::move(result_);
    }

private:
    void addBundle(const fs::path& path)
    {
        const Bundle bundle(path);
        const std::string identifier = bundle.infoString("CFBundleIdentifier").value_or(path.filename().string());
        if (loadedSoFar().identifiers.contains(identifier)) return;
        if (purpose_ == PlugInPurpose::packets && isForStreamsOnly(bundle)) {
            hasLeftOut_ = true;
            return;
        }
        if (auto plugIn = load(bundle)) {
            loadedSoFar().identifiers.insert(identifier);
            loadedSoFar().plugIns.push_back(*plugIn);
            result_.loaded.push_back(*std::move(plugIn));
        } else {
            addProblem(plugIn.error());
        }
    }

    static bool isForStreamsOnly(const Bundle& bundle)
    {
        const auto entry = bundle.infoDictionary().find("VELStreamsOnly");
        return entry != bundle.infoDictionary().end() && entry->second == Bundle::InfoValue(true);
    }

    PlugInPurpose purpose_;
    bool hasLeftOut_ = false;
    PlugInLoading result_;
};

}  // namespace

std::string PlugInProblem::reason() const
{
    switch (kind) {
    case Kind::cannotBeSearched: return fmt::format("cannot be searched for plug-ins: {}", detail);
    case Kind::holdsNothing: return "holds no plug-in, and no other folder was named";
    case Kind::leftOut: return "is left out, since the program runs with more rights than its user";
    case Kind::otherVersion:
        return fmt::format("is built for version {} of the plug-in contract, this program has version {}", version, velContractVersion);
    case Kind::moduleIsOutside: return fmt::format("its information dictionary names a module outside it: {}", detail);
    case Kind::hasNoModule: return fmt::format("has no module {}", detail);
    case Kind::doesNotLoad: return fmt::format("does not load: {}", detail);
    case Kind::hasNoEntry: return "is no plug-in: its module does not export velBundleEntry";
    case Kind::hasNoPrincipalClass: return "has no principal class";
    case Kind::gaveNoObject: return "its principal class gave no object";
    case Kind::failed: return fmt::format("failed while being created: {}", detail);
    case Kind::failedSilently: return "failed while being created, for a reason that it does not tell";
    }
    std::unreachable();
}

std::string PlugInProblem::text() const { return fmt::format("{}: {}", bundle.string(), reason()); }

const std::vector<LoadedPlugIn>& PlugInLoader::loaded() { return loadedSoFar().plugIns; }

fs::path PlugInLoader::ownFolder()
{
    std::error_code error;
    return (fs::read_symlink("/proc/self/exe", error).parent_path() / SEALSCOPE_PLUGINS_FROM_BIN).lexically_normal();
}

PlugInLoading PlugInLoader::load(const std::vector<fs::path>& named, PlugInPurpose purpose)
{
    Loading loading(purpose);
    std::vector<fs::path> folders = named;
    std::ranges::move(foldersOfEnvironment(), std::back_inserter(folders));
    for (const fs::path& folder : folders) {
        // Whoever may only start a program that has been given capabilities must not get at them through code of their own.
        if (getauxval(AT_SECURE) != 0)
            loading.addProblem({.bundle = folder, .kind = PlugInProblem::Kind::leftOut});
        else
            loading.addFolder(folder);
    }
    std::error_code error;
    if (const fs::path own = ownFolder(); fs::is_directory(own, error)) loading.addFolder(own);
    return std::move(loading).result();
}

}  // namespace sealscope
