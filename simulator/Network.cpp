// Makes the two networks. Everything it makes belongs to this process and its children alone and is
// gone with the last of them: namespaces, devices that nobody else sees, files in a private mount.

#include "simulator/Network.h"

#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <system_error>

#include "simulator/Processes.h"

namespace simulator {
namespace {

constexpr const char* kTun = "/dev/net/tun";
constexpr const char* kDevice = "wan0";
/// The kernel keeps so many packets until they are read: a handshake of some thousand connections.
constexpr const char* kTunSettings = "link set dev wan0 txqueuelen 16384 mtu 1500 up\n";

std::string Reason(int error) { return std::generic_category().message(error); }

[[noreturn]] void Fail(const std::string& operation) {
  const int error = errno;
  if (error == EPERM || error == EACCES) throw NotPermitted(operation + ": " + Reason(error));
  throw std::system_error(error, std::generic_category(), operation);
}

void WriteFile(const std::string& path, const std::string& text) {
  const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!file || write(file.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    Fail(path);
  }
}

/// @return whether it took a user namespace.
bool EnterOwnNamespaces() {
  if (unshare(CLONE_NEWNET | CLONE_NEWNS) == 0) return false;
  if (errno != EPERM) Fail("unshare");
  const std::string user = std::to_string(geteuid());
  const std::string group = std::to_string(getegid());
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) != 0) {
    throw NotPermitted("network namespaces need root or the right to make user namespaces: " +
                       Reason(errno));
  }
  WriteFile("/proc/self/setgroups", "deny");
  WriteFile("/proc/self/uid_map", "0 " + user + " 1");
  WriteFile("/proc/self/gid_map", "0 " + group + " 1");
  return true;
}

FileDescriptor OpenTun() {
  FileDescriptor tun(open(kTun, O_RDWR | O_NONBLOCK | O_CLOEXEC));
  if (!tun) throw NotPermitted(std::string(kTun) + " cannot be opened: " + Reason(errno));
  ifreq request{};
  std::strncpy(request.ifr_name, kDevice, IFNAMSIZ - 1);
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  if (ioctl(tun.Get(), TUNSETIFF, &request) != 0) Fail("TUNSETIFF");
  return tun;
}

/// Has ip(8) carry out commands in the namespace this process is in.
void Configure(const std::string& commands, bool essential) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) Fail("pipe2");
  const FileDescriptor readEnd(ends[0]);
  FileDescriptor writeEnd(ends[1]);
  // The commands are far shorter than what a pipe holds.
  if (write(writeEnd.Get(), commands.data(), commands.size()) < 0) Fail("pipe");
  writeEnd.Close();
  const FileDescriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));

  Launch launch;
  launch.arguments = {"ip", "-batch", "-"};
  launch.standardInput = readEnd.Get();
  if (!essential) launch.standardError = nowhere.Get();
  const int status = Run(launch);
  if (status == kExitNotFound) throw std::runtime_error("ip(8) of the package iproute2 is missing");
  if (status != 0 && essential) throw std::runtime_error("ip(8) could not set up the network");
}

void CheckAddresses(const Scene& scene) {
  const auto check = [](const IpAddress& address) {
    const std::string text = address.Text();
    const auto& bytes = address.Bytes();
    constexpr unsigned char kV6Prefix[8] = {0xFD, 0x77};
    const bool inRange = address.IsV4() ? bytes[12] == 10 && bytes[13] == 77
                                        : std::equal(bytes.begin(), bytes.begin() + 8, kV6Prefix);
    if (!inRange) throw SceneError(text + ": expected an address of 10.77.0.0/16 or fd77::/64");
  };
  for (const auto& [address, path] : scene.paths) check(address);
  for (const Gateway& gateway : scene.gateways) check(gateway.address);
}

bool HasV6(const Scene& scene) {
  const auto isV6 = [](const IpAddress& address) { return !address.IsV4(); };
  return std::ranges::any_of(scene.gateways, isV6, &Gateway::address) ||
         std::ranges::any_of(scene.paths, isV6, [](const auto& entry) { return entry.first; });
}

void BindOver(const std::string& file, const std::string& place, bool essential) {
  if (mount(file.c_str(), place.c_str(), nullptr, MS_BIND, nullptr) != 0 && essential) Fail(place);
}

}  // namespace

Network Network::Make(const Scene& scene) {
  CheckAddresses(scene);
  EnterOwnNamespaces();
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    // So it is after chroot(2), where nothing can be hidden from the command.
    if (errno == EINVAL) throw NotPermitted("the root directory is no mount point");
    Fail("mount");
  }
  const bool needsV6 = HasV6(scene);
  Network network;
  network.gatewayTun = OpenTun();
  Configure("link set dev lo up\n" + std::string(kTunSettings) +
                "route add 10.76.0.1/32 dev wan0\n"
                "route add local 10.77.0.0/16 dev lo\n",
            true);
  Configure("route add fd76::1/128 dev wan0\nroute add local fd77::/64 dev lo\n", needsV6);
  network.gatewayNamespace = FileDescriptor(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
  if (!network.gatewayNamespace) Fail("/proc/self/ns/net");
  // Servers that do not ask for it themselves may bind to addresses of the range.
  const FileDescriptor bindAny(open("/proc/sys/net/ipv6/ip_nonlocal_bind", O_WRONLY | O_CLOEXEC));
  if (bindAny && write(bindAny.Get(), "1", 1) != 1 && needsV6) Fail("ip_nonlocal_bind");

  if (unshare(CLONE_NEWNET) != 0) Fail("unshare");
  network.clientTun = OpenTun();
  Configure("link set dev lo up\n" + std::string(kTunSettings) +
                "address add 10.76.0.1/32 dev wan0\n"
                "route add 10.77.0.0/16 dev wan0\n",
            true);
  Configure("address add fd76::1/128 dev wan0 nodad\nroute add fd77::/64 dev wan0\n", needsV6);
  return network;
}

void HideOtherNames(const Scene& scene) {
  std::string hosts = "127.0.0.1 localhost\n::1 localhost\n";
  for (const HostName& host : scene.names) hosts += host.address.Text() + " " + host.name + "\n";
  const std::string sources = scene.resolver ? "hosts: files dns\n" : "hosts: files\n";
  const std::string resolver =
      scene.resolver ? "nameserver " + scene.resolver->Text() + "\n" : "# no name server\n";

  char directory[] = "/tmp/ahs-wan-XXXXXX";
  if (mkdtemp(directory) == nullptr) Fail("mkdtemp");
  const std::string root = directory;
  // The files outlive the directory: they are held by being mounted elsewhere.
  if (mount("tmpfs", directory, "tmpfs", MS_NOSUID | MS_NODEV, "mode=755") == 0) {
    WriteFile(root + "/hosts", hosts);
    WriteFile(root + "/nsswitch.conf", "passwd: files\ngroup: files\n" + sources);
    WriteFile(root + "/resolv.conf", resolver);
    BindOver(root + "/hosts", "/etc/hosts", !scene.names.empty());
    // Where these are missing nobody is asked anyway, or only this machine.
    BindOver(root + "/nsswitch.conf", "/etc/nsswitch.conf", false);
    BindOver(root + "/resolv.conf", "/etc/resolv.conf", scene.resolver.has_value());
    umount2(directory, MNT_DETACH);
  }
  rmdir(directory);
}

}  // namespace simulator
