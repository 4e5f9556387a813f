// The controller (loading extension libraries, opening, controlling and
// closing instances), the parameter pack and the parameter-string helpers.
#include "vesk/datastore/controller.h"

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unordered_map>

#include "vesk/datastore/parameter_pack.h"
#include "vesk/datastore/parse_utility.h"
#include "vesk/log.h"
#include "vesk/str.h"

namespace vesk::datastore {
namespace {

// Owns a handle of the dynamic loader until it is handed to the library map.
struct DlClose {
    void operator()(void* handle) const noexcept {
        if (handle != nullptr) ::dlclose(handle);
    }
};
using LibraryHandle = std::unique_ptr<void, DlClose>;

// The file of a config's extension library; also its key among the loaded
// libraries.
std::string library_path(const DataStoreConfig& config) {
    return DataStoreParseUtility::generate_path(config.extension_path, config.extension_name, "");
}

}  // namespace

class DataStoreController::Impl {
public:
    Impl() = default;
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    // Instances first (their "destroy" lives in the libraries), then the
    // libraries.
    ~Impl();

    StatusList load_impl(std::vector<DataStoreConfig> configs,
                         std::vector<DataStoreConfig>& loaded);
    StatusList open_impl(std::vector<DataStoreConfig>& configs, DataStoreHandles& handles);
    int32_t control_impl(std::weak_ptr<DataStoreExtension> instance, uint16_t op, const void* in,
                         void* out, void* extra);
    StatusList close_impl(const std::vector<std::string>& names);

    // Open instances by instance name; each owns its instance.
    std::unordered_map<std::string, DataStoreDescription> instances;
    // Loaded libraries by library path; the handles are closed by ~Impl.
    std::unordered_map<std::string, DSExtensionData> libraries;
};

DataStoreController::Impl::~Impl() {
    instances.clear();
    for (auto& entry : libraries) {
        if (entry.second.handle != nullptr) ::dlclose(entry.second.handle);
    }
    libraries.clear();
}

StatusList DataStoreController::Impl::load_impl(std::vector<DataStoreConfig> configs,
                                                std::vector<DataStoreConfig>& loaded) {
    DataStoreParseUtility::fillInVacantFields(configs);

    StatusList status;
    status.reserve(configs.size());
    for (const auto& config : configs)
        status.emplace_back(library_path(config), DataStoreExtension::OPERATION_UNSUCCESSFULL);

    loaded.reserve(loaded.size() + configs.size());
    // Counts new loads only: success marks fill the status list from its
    // front, so an entry of an already loaded library can be overwritten.
    std::size_t k = 0;
    for (const auto& config : configs) {
        const std::string computed = library_path(config);
        if (libraries.count(computed) != 0) {
            loaded.push_back(config);
            continue;
        }

        std::string path = computed;
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0) {
            const int err = errno;
            vesk::log::ErrorLog(__FILE__, __func__, __LINE__, 4).stream()
                << "opendir failed on " << path << ": " << err << ": " << std::strerror(err);
            path.clear();
        }
        if (path.empty()) throw std::runtime_error("Invalid extension name/path " + computed);

        LibraryHandle handle(::dlopen(path.c_str(), RTLD_LAZY));
        if (!handle) {
            const char* reason = ::dlerror();
            vesk::log::ErrorLog(__FILE__, __func__, __LINE__, 4).stream()
                << "error opening extension library " << path << ": '"
                << (reason != nullptr ? reason : "") << "'";
            throw std::runtime_error("unable to load datastore extension " + path);
        }

        DSExtensionData library;
        library.create = reinterpret_cast<CreateExtensionFn>(::dlsym(handle.get(), "create"));
        if (library.create == nullptr)
            throw std::runtime_error("Unable to find create handle for " + path);
        library.destroy = reinterpret_cast<DestroyExtensionFn>(::dlsym(handle.get(), "destroy"));
        if (library.destroy == nullptr)
            throw std::runtime_error("Unable to find destroy handle for " + path);

        library.handle = handle.get();
        libraries.emplace(path, library);
        handle.release();  // owned by the library map from here on

        status[k] = {path, DataStoreExtension::OPERATION_SUCCESSFULL};
        ++k;
        loaded.push_back(config);
    }
    return status;
}

StatusList DataStoreController::Impl::open_impl(std::vector<DataStoreConfig>& configs,
                                                DataStoreHandles& handles) {
    StatusList status;
    if (configs.empty()) return status;

    DataStoreParseUtility::fillInVacantFields(configs);
    handles.clear();
    handles.reserve(configs.size());
    status.reserve(configs.size());

    for (const auto& config : configs) {
        const std::string path = library_path(config);
        const std::string& name = config.instance_name;
        if (instances.count(name) != 0) {
            status.emplace_back(name, DataStoreExtension::OPERATION_UNSUCCESSFULL);
            throw std::runtime_error("Extension name/path " + path + ", instance " + name +
                                     " already open");
        }
        if (libraries.count(path) == 0) {
            std::vector<DataStoreConfig> scratch;
            load_impl({config}, scratch);
        }

        const DSExtensionData& library = libraries.at(path);
        const DestroyExtensionFn destroy = library.destroy;
        // "destroy" is never handed a null pointer.
        std::shared_ptr<DataStoreExtension> instance(library.create(),
                                                     [destroy](DataStoreExtension* extension) {
                                                         if (extension != nullptr)
                                                             destroy(extension);
                                                     });
        if (!instance)
            throw std::runtime_error("Extension name/path " + path + " create handle failed");

        instance->instance_name = name;
        const int32_t result = instance->open(config.source_parameters);
        status.emplace_back(name, result);
        if (result != DataStoreExtension::OPERATION_SUCCESSFULL) {
            // `instance` goes out of scope on the way out: "destroy" runs.
            throw std::runtime_error("Extension name/path " + path + ", instance " + name +
                                     " open failed");
        }

        DataStoreDescription description;
        description.extension = instance;
        description.config = config;
        instances.emplace(name, std::move(description));
        handles.emplace_back(config, std::weak_ptr<DataStoreExtension>(instance));
    }
    return status;
}

int32_t DataStoreController::Impl::control_impl(std::weak_ptr<DataStoreExtension> instance,
                                                uint16_t op, const void* in, void* out,
                                                void* extra) {
    // The local owner keeps the instance alive for the length of the call.
    const std::shared_ptr<DataStoreExtension> live = instance.lock();
    if (!live) return DataStoreExtension::OPERATION_UNSUCCESSFULL;
    return live->control(op, in, out, extra);
}

StatusList DataStoreController::Impl::close_impl(const std::vector<std::string>& names) {
    StatusList status;
    if (names.empty()) {
        instances.clear();
        return status;
    }
    status.reserve(names.size());
    for (const auto& name : names)
        status.emplace_back(name, DataStoreExtension::OPERATION_SUCCESSFULL);

    // Failure marks fill the status list from its front, in the order of misses.
    std::size_t m = 0;
    for (const auto& name : names) {
        if (instances.erase(name) == 0) {
            status[m] = {name, DataStoreExtension::OPERATION_UNSUCCESSFULL};
            ++m;
        }
    }
    return status;
}

// ---- DataStoreController ----

std::weak_ptr<DataStoreController> DataStoreController::ref_ptr;

DataStoreController::DataStoreController() : impl_(std::make_unique<Impl>()) {}

DataStoreController::~DataStoreController() = default;

std::shared_ptr<DataStoreController> DataStoreController::createDataStoreController() {
    if (std::shared_ptr<DataStoreController> live = ref_ptr.lock()) return live;
    std::shared_ptr<DataStoreController> fresh(new DataStoreController());
    ref_ptr = fresh;
    return fresh;
}

StatusList DataStoreController::load(std::vector<DataStoreConfig> configs,
                                     std::vector<DataStoreConfig>& loaded) {
    return impl_->load_impl(std::move(configs), loaded);
}

StatusList DataStoreController::open(std::vector<DataStoreConfig>& configs,
                                     DataStoreHandles& handles) {
    return impl_->open_impl(configs, handles);
}

int32_t DataStoreController::control(std::weak_ptr<DataStoreExtension> instance, uint16_t op,
                                     const void* in, void* out, void* extra) {
    return impl_->control_impl(std::move(instance), op, in, out, extra);
}

StatusList DataStoreController::close(std::vector<std::string> names) {
    return impl_->close_impl(names);
}

// ---- ParameterPack ----

class ParameterPack::Impl {
public:
    // The value under `key`, inserted empty when absent.
    std::string& lookUpKey(const std::string& key);

    std::unordered_map<std::string, std::string> values;
};

std::string& ParameterPack::Impl::lookUpKey(const std::string& key) {
    auto found = values.find(key);
    if (found == values.end()) found = values.emplace(key, std::string()).first;
    return found->second;
}

ParameterPack::ParameterPack() : impl_(std::make_shared<Impl>()) {}

std::string& ParameterPack::operator[](const std::string& key) { return impl_->lookUpKey(key); }

std::string& ParameterPack::const_lookup(const std::string& key) const {
    return impl_->lookUpKey(key);
}

}  // namespace vesk::datastore

// ---- Parameter strings and list helpers ----

bool parse_sqlite_params(const std::string& parameters, std::string& source, bool& read_only) {
    for (const auto& item : vesk::str::split(parameters, '|', true)) {
        const std::vector<std::string> pieces = vesk::str::split(item, '=', true);
        if (pieces.size() != 2) return false;
        const std::string key = vesk::str::stripws(pieces[0]);
        const std::string value = vesk::str::stripws(pieces[1]);
        if (key == "source")
            source = value;
        else if (key == "read_only")
            read_only = (value == "true");
    }
    return true;
}

bool in(const std::vector<std::string>& list, const std::string& item) {
    for (const auto& element : list) {
        if (element == item) return true;
    }
    return false;
}

bool in(const std::vector<std::string>& list, const std::vector<std::string>& items) {
    for (const auto& item : items) {
        if (!in(list, item)) return false;
    }
    return true;
}

std::vector<std::string> prune(const std::vector<std::string>& list,
                               const std::vector<std::string>& remove) {
    std::vector<std::string> kept;
    for (const auto& element : list) {
        if (!in(remove, element)) kept.push_back(element);
    }
    return kept;
}
