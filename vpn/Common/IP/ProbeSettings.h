#pragma once

#include <memory>
#include <string>

#include "vpn/Common/IP/ProbeKind.h"
#include "vpn/Common/IP/ProbeReport.h"

struct x509_store_st;

/// What holds for all probes of the process that start from now on. May be called from any thread.
class ProbeSettings {
 public:
  using Trust = std::shared_ptr<x509_store_st>;

  ProbeSettings() = delete;

  /// Prepares the process for probes. False if that could not be done.
  static bool prepareTransport(bool secure);

  static RoundTripMeasure measure();
  static void setMeasure(RoundTripMeasure measure);

  /// Whether a probe ends early whose task is out of patience; see `ProbeTask`.
  static bool leavesSilent();
  static void setLeavesSilent(bool leaves);

  /// Whether an answer without a service is a failure to connect.
  static bool needsService();
  static void setNeedsService(bool needs);

  /// How the gateway at a host (as `SendHttpProbe` takes it) and port is probed.
  static ProbeHow howTo(const std::string& host, unsigned short port);
  static void setHows(ProbeHows hows);
  /// A word that differs where they do; empty where all are probed by HTTP at their own ports.
  static std::string howsWord();

  /// The certificates that are trusted, the same object until `setTrustFile`; null if there is no
  /// memory for them. The first call reads the system's.
  static Trust trustedCertificates();
  /// @param path of PEM certificates beside the system's; one that another user could have
  ///        written is not used, and the log says so.
  /// @return why the file is of no use, or an empty text.
  static std::string setTrustFile(const std::string& path);
};
