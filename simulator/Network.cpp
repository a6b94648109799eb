// Makes the two networks. Its namespaces, devices and private mounts belong only to this process
// and its children, and vanish with the last of them.

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
#include <system_error>

#include "simulator/Processes.h"

namespace simulator {
namespace {

constexpr const char* Tun = "/dev/net/tun";
constexpr const char* Device = "wan0";
/// The kernel queues this many packets: the handshakes of some thousand connections.
constexpr const char* TunSettings = "link set dev wan0 txqueuelen 16384 mtu 1500 up\n";
/// The clients' local network, by which a machine knows where it is. Its router carries nothing.
constexpr const char* LocalNetwork =
    "link add home0 type veth peer name home1\n"
    "link set dev home0 addrgenmode none\n"
    "link set dev home1 addrgenmode none\n"
    "link set dev home0 up\n"
    "link set dev home1 up\n"
    "address add 10.75.0.2/24 dev home0\n"
    "neighbour add 10.75.0.1 lladdr 02:00:00:00:00:01 dev home0 nud permanent\n"
    "route add default via 10.75.0.1 dev home0 metric 200\n";

std::string reason(int error) { return std::generic_category().message(error); }

[[noreturn]] void fail(const std::string& operation) {
  const int error = errno;
  if (error == EPERM || error == EACCES) throw NotPermitted(operation + ": " + reason(error));
  throw std::system_error(error, std::generic_category(), operation);
}

void writeFile(const std::string& path, const std::string& text) {
  const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!file || write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    fail(path);
  }
}

/// @return whether it had to make a user namespace.
bool enterOwnNamespaces() {
  if (unshare(CLONE_NEWNET | CLONE_NEWNS) == 0) return false;
  if (errno != EPERM) fail("unshare");
  const std::string user = std::to_string(geteuid());
  const std::string group = std::to_string(getegid());
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) != 0) {
    throw NotPermitted("network namespaces need root or the right to make user namespaces: " +
                       reason(errno));
  }
  writeFile("/proc/self/setgroups", "deny");
  writeFile("/proc/self/uid_map", "0 " + user + " 1");
  writeFile("/proc/self/gid_map", "0 " + group + " 1");
  return true;
}

FileDescriptor openTun() {
  FileDescriptor tun(open(Tun, O_RDWR | O_NONBLOCK | O_CLOEXEC));
  if (!tun) throw NotPermitted(std::string(Tun) + " cannot be opened: " + reason(errno));
  ifreq request{};
  std::strncpy(request.ifr_name, Device, IFNAMSIZ - 1);
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  if (ioctl(tun.get(), TUNSETIFF, &request) != 0) fail("TUNSETIFF");
  return tun;
}

/// Runs ip(8) with commands in this process's namespace.
void configure(const std::string& commands, bool essential) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) fail("pipe2");
  const FileDescriptor readEnd(ends[0]);
  FileDescriptor writeEnd(ends[1]);
  // A pipe's buffer is far larger than the commands.
  if (write(writeEnd.get(), commands.data(), commands.size()) < 0) fail("pipe");
  writeEnd.close();
  const FileDescriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));

  Launch launch;
  launch.arguments = {"ip", "-batch", "-"};
  launch.standardInput = readEnd.get();
  if (!essential) launch.standardError = nowhere.get();
  const int status = run(launch);
  if (status == ExitNotFound) throw std::runtime_error("ip(8) of the package iproute2 is missing");
  if (status != 0 && essential) throw std::runtime_error("ip(8) could not set up the network");
}

/// A gateway at no address in particular is at all of them.
bool isAll(const IpAddress& address) { return address.text() == "0.0.0.0"; }

bool answersForAll(const Scene& scene) {
  return std::ranges::any_of(scene.gateways, isAll, &Gateway::address);
}

void checkAddresses(const Scene& scene) {
  const auto check = [](const IpAddress& address) {
    const std::string text = address.text();
    const auto& bytes = address.bytes();
    constexpr unsigned char V6Prefix[8] = {0xFD, 0x77};
    if (isAll(address)) return;
    const bool inRange = address.isV4() ? bytes[12] == 10 && bytes[13] == 77
                                        : std::equal(bytes.begin(), bytes.begin() + 8, V6Prefix);
    if (!inRange) throw SceneError(text + ": expected an address of 10.77.0.0/16 or fd77::/64");
  };
  for (const auto& [address, path] : scene.paths) check(address);
  for (const Gateway& gateway : scene.gateways) check(gateway.address);
}

bool hasV6(const Scene& scene) {
  const auto isV6 = [](const IpAddress& address) { return !address.isV4(); };
  return std::ranges::any_of(scene.gateways, isV6, &Gateway::address) ||
         std::ranges::any_of(scene.paths, isV6, [](const auto& entry) { return entry.first; });
}

void bindOver(const std::string& file, const std::string& place, bool essential) {
  if (mount(file.c_str(), place.c_str(), nullptr, MS_BIND, nullptr) != 0 && essential) fail(place);
}

}  // namespace

Network Network::make(const Scene& scene) {
  checkAddresses(scene);
  enterOwnNamespaces();
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    // This happens after chroot(2); then nothing can be hidden from the command.
    if (errno == EINVAL) throw NotPermitted("the root directory is no mount point");
    fail("mount");
  }
  const bool needsV6 = hasV6(scene);
  Network network;
  network.gatewayTun = openTun();
  configure("link set dev lo up\n" + std::string(TunSettings) +
                "route add 10.76.0.1/32 dev wan0\n"
                "route add local " +
                (answersForAll(scene) ? "default dev lo table main\n" : "10.77.0.0/16 dev lo\n"),
            true);
  configure("route add fd76::1/128 dev wan0\nroute add local fd77::/64 dev lo\n", needsV6);
  network.gatewayNamespace = FileDescriptor(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
  if (!network.gatewayNamespace) fail("/proc/self/ns/net");
  // Lets servers without IP_FREEBIND bind to addresses of the range.
  const FileDescriptor bindAny(open("/proc/sys/net/ipv6/ip_nonlocal_bind", O_WRONLY | O_CLOEXEC));
  if (bindAny && write(bindAny.get(), "1", 1) != 1 && needsV6) fail("ip_nonlocal_bind");

  if (unshare(CLONE_NEWNET) != 0) fail("unshare");
  network.clientTun = openTun();
  configure("link set dev lo up\n" + std::string(TunSettings) +
                "address add 10.76.0.1/32 dev wan0\n"
                "route add default dev wan0\n",
            true);
  configure(LocalNetwork, false);
  configure("address add fd76::1/128 dev wan0 nodad\nroute add ::/0 dev wan0\n", needsV6);
  return network;
}

void hideOtherNames(const Scene& scene) {
  std::string hosts = "127.0.0.1 localhost\n::1 localhost\n";
  for (const HostName& host : scene.names) hosts += host.address.text() + " " + host.name + "\n";
  const std::string sources = scene.resolver ? "hosts: files dns\n" : "hosts: files\n";
  const std::string resolver =
      scene.resolver ? "nameserver " + scene.resolver->text() + "\n" : "# no name server\n";

  char directory[] = "/tmp/ahs-wan-XXXXXX";
  if (mkdtemp(directory) == nullptr) fail("mkdtemp");
  const std::string root = directory;
  // The files outlive the directory, because they are mounted elsewhere.
  if (mount("tmpfs", directory, "tmpfs", MS_NOSUID | MS_NODEV, "mode=755") == 0) {
    writeFile(root + "/hosts", hosts);
    writeFile(root + "/nsswitch.conf", "passwd: files\ngroup: files\n" + sources);
    writeFile(root + "/resolv.conf", resolver);
    bindOver(root + "/hosts", "/etc/hosts", !scene.names.empty());
    // Without these two files no name service is asked, or only this machine.
    bindOver(root + "/nsswitch.conf", "/etc/nsswitch.conf", false);
    bindOver(root + "/resolv.conf", "/etc/resolv.conf", scene.resolver.has_value());
    umount2(directory, MNT_DETACH);
  }
  rmdir(directory);
}

}  // namespace simulator
