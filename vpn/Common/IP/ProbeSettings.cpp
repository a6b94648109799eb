// The settings that probes share. Probes run on threads that nobody waits for, so the settings are
// never freed; a probe takes what it needs once, so that a change concerns later probes alone.

#include "vpn/Common/IP/ProbeSettings.h"

#include <curl/curl.h>
#include <dirent.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>

#include "vpn/Common/IP/TransportMemory.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Trust/Environment.h"
#include "vpn/Common/Trust/FileTrust.h"
#include "vpn/Common/Trust/LegibleText.h"
#include "vpn/include/Locks.h"
#include "vpn/include/StringUtils.h"

namespace {

/// Has OpenSSL read the machine's configuration now, so that it does not look for OPENSSL_CONF
/// later.
void readMachinesConfiguration() {
  OPENSSL_INIT_SETTINGS* const which = OPENSSL_INIT_new();
  if (which != nullptr) {
    const std::string file = std::string(X509_get_default_cert_area()) + "/openssl.cnf";
    OPENSSL_INIT_set_config_filename(which, file.c_str());
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, which);
    OPENSSL_INIT_free(which);
  }
}

struct Settings {
  /// Keeps OpenSSL's state while the process exits: a probe may be in a handshake then. The first
  /// use of OpenSSL in a process decides, so this comes before everything else here.
  Settings() {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    if (Environment::isShut()) {
      readMachinesConfiguration();
    }
  }

  CManualLock lock;
  /// Null until the first secure probe needs it.
  ProbeSettings::Trust trust AHS_GUARDED_BY(lock);
  /// Atomic without the lock: a probe reads it once and nothing else depends on it.
  std::atomic<RoundTripMeasure> measure{RoundTripMeasure::Network};
  std::atomic<bool> leavesSilent{true};  // the same
  std::atomic<bool> needsService{false};
  std::atomic<bool> hasHows{false};  // most processes have none
  ProbeHows hows AHS_GUARDED_BY(lock);
};

Settings& settings() {
  static Settings& instance = *new Settings;
  return instance;
}

/// Whether OpenSSL can look certificates up in a directory, by links named for their hash. The
/// iterators of the standard library end the process when they get no memory for a name, and
/// glob(3) then frees a name twice.
bool isCertificateDirectory(const char* path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path), closedir);
  if (!directory) {
    return false;
  }
  while (const dirent* entry = readdir(directory.get())) {
    if (std::string_view(static_cast<const char*>(entry->d_name)).ends_with(".0")) {
      return true;
    }
  }
  return false;
}

/// Adds the certificates of a file that nobody else could have written. @return what is wrong.
std::string addCertificates(const std::string& path, X509_STORE* store) {
  FileTrust::Descriptor file;
  FileTrust::Refusal refusal;
  if (!FileTrust::openFile(path, FileTrust::Check::Private, file, refusal)) {
    CAppLog::LogDebugMessage("setTrustFile", __FILE__, __LINE__, Logging::DBG_Warning,
                             "the file of certificates %s %s", legibleLine(path).c_str(),
                             refusal.text.c_str());
    return refusal.text;
  }
  // Without a buffer OpenSSL reads each byte by a call of its own.
  BIO* const bytes = BIO_new_fd(file.get(), BIO_NOCLOSE);
  const std::unique_ptr<BIO, decltype(&BIO_free_all)> text(BIO_push(BIO_new(BIO_f_buffer()), bytes),
                                                           &BIO_free_all);
  std::string problem = "it holds no certificate in PEM.";
  while (X509* const certificate =
             text ? PEM_read_bio_X509_AUX(text.get(), nullptr, nullptr, nullptr) : nullptr) {
    X509_STORE_add_cert(store, certificate);
    X509_free(certificate);
    problem.clear();
  }
  return problem;
}

/// libcurl's default trust and `extraFile`, in one store for all probes. Prefers the system's
/// directory, read on demand, to its one large file, whose reading takes longer than many a probe.
ProbeSettings::Trust makeTrust(const std::string& extraFile, std::string& problem) {
  ProbeSettings::Trust store(X509_STORE_new(), X509_STORE_free);
  if (!store) {
    return store;
  }
  const curl_version_info_data* version = curl_version_info(CURLVERSION_NOW);
  if (version->capath != nullptr && isCertificateDirectory(version->capath)) {
    X509_STORE_load_path(store.get(), version->capath);
  } else if (version->cainfo != nullptr) {
    X509_STORE_load_file(store.get(), version->cainfo);
  }
  if (!extraFile.empty()) {
    problem = addCertificates(extraFile, store.get());
  }
  // As libcurl does: an intermediate certificate that is trusted may end a chain.
  X509_STORE_set_flags(store.get(), X509_V_FLAG_PARTIAL_CHAIN);
  ERR_clear_error();
  return store;
}

/// libcurl's own process-wide state. It is never torn down: a probe may still run at exit. Its
/// memory is wiped before it is given back, for it holds credentials in many forms and wipes none
/// itself.
bool initialiseTransport() {
  static const bool done =
      curl_global_init_mem(CURL_GLOBAL_DEFAULT, malloc, &TransportMemory::free,
                           &TransportMemory::resize, strdup, calloc) == CURLE_OK;
  return done;
}

/// Whether `initialiseTransport` could start OpenSSL. Without memory OpenSSL stays down, does not
/// tell libcurl, and crashes when used.
bool isTlsUsable() { return OSSL_LIB_CTX_get0_global_default() != nullptr; }

}  // namespace

bool ProbeSettings::prepareTransport(bool secure) {
  return initialiseTransport() && (!secure || isTlsUsable());
}

RoundTripMeasure ProbeSettings::measure() { return settings().measure; }

void ProbeSettings::setMeasure(RoundTripMeasure measure) { settings().measure = measure; }

bool ProbeSettings::leavesSilent() { return settings().leavesSilent; }

void ProbeSettings::setLeavesSilent(bool leaves) { settings().leavesSilent = leaves; }

bool ProbeSettings::needsService() { return settings().needsService; }

void ProbeSettings::setNeedsService(bool needs) { settings().needsService = needs; }

ProbeHow ProbeSettings::howTo(const std::string& host, unsigned short port) {
  Settings& process = settings();
  if (!process.hasHows) {
    return {};
  }
  const bool isBracketed = host.starts_with('[') && host.ends_with(']');
  const std::string plain = isBracketed ? host.substr(1, host.size() - 2) : host;
  CAutoLockT<CManualLock> guard(process.lock);
  const auto found = process.hows.known.find({CStringUtils::toLower(plain), port});
  return found != process.hows.known.end() ? found->second : process.hows.others;
}

void ProbeSettings::setHows(ProbeHows hows) {
  Settings& process = settings();
  std::erase_if(hows.known, [&hows](const auto& one) { return one.second == hows.others; });
  CAutoLockT<CManualLock> guard(process.lock);
  std::swap(process.hows, hows);
  process.hasHows = !process.hows.known.empty() || process.hows.others != ProbeHow{};
}

std::string ProbeSettings::howsWord() {
  Settings& process = settings();
  if (!process.hasHows) {
    return "";
  }
  // FNV-1a: short, and the same in every process.
  std::uint64_t sum = 0xcbf29ce484222325;
  const auto add = [&sum](const std::string& text) {
    for (const char c : text + '\n') {
      sum = (sum ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    }
  };
  const auto textOf = [](const ProbeHow& how) {
    return std::string(ProbeKindNames[static_cast<std::size_t>(how.kind)]) + " " +
           std::to_string(how.port);
  };
  CAutoLockT<CManualLock> guard(process.lock);
  for (const auto& [place, how] : process.hows.known) {
    add(place.first + " " + std::to_string(place.second) + " " + textOf(how));
  }
  add(textOf(process.hows.others));
  return "probes " + std::to_string(sum);
}

ProbeSettings::Trust ProbeSettings::trustedCertificates() {
  Settings& process = settings();
  CAutoLockT<CManualLock> guard(process.lock);
  if (!process.trust) {
    std::string ignored;
    process.trust = makeTrust({}, ignored);
  }
  return process.trust;
}

std::string ProbeSettings::setTrustFile(const std::string& path) {
  Settings& process = settings();  // first: it prepares OpenSSL
  std::string problem;
  Trust store = makeTrust(path, problem);
  CAutoLockT<CManualLock> guard(process.lock);
  process.trust.swap(store);
  return problem;
}
