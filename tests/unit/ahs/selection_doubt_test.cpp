// Which answers may be a stranger's, as a table of what was met.

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include "vpn/Api/AHS/SelectionDoubt.h"
#include "vpn/include/HttpSession.h"

namespace {

using Kind = SelectionDoubt::Kind;
using Report = HttpProbe::Report;

constexpr STATUSCODE Untrusted = HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE;
constexpr STATUSCODE NotHttp = HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE;

Report at(const std::string& host, STATUSCODE status, long long networkUs, long long responseUs) {
  Report report;
  report.host = host;
  report.status = status;
  report.networkRttUs = networkUs;
  report.responseRttUs = responseUs;
  return report;
}
Report page(const std::string& host, unsigned int httpStatus, const std::string& redirect = "",
            long long networkUs = 2'000) {
  Report report = at(host, HTTP_SESSION_SUCCESS, networkUs, networkUs);
  report.httpStatus = httpStatus;
  report.redirectHost = redirect;
  return report;
}
Report shown(const std::string& host, const std::string& issuer, long long networkUs = 2'000) {
  Report report = at(host, Untrusted, networkUs, networkUs);
  report.issuer = issuer;
  return report;
}
Report failed(const std::string& host, STATUSCODE status, int systemError) {
  Report report = at(host, status, -1, -1);
  report.systemError = systemError;
  return report;
}
Report led(const std::string& host, const std::string& address) {
  Report report = page(host, 400);
  report.address = address;
  report.toThisMachine = address.starts_with("127.");
  return report;
}

struct Case {
  const char* what;
  Kind kind;
  std::vector<Report> reports;
  std::optional<Report> address = {};
  std::optional<Report> name = {};
  std::size_t places = 0;
};

}  // namespace

TEST(SelectionDoubt, IsThereWhereAStrangerAnswersForAllAndNotWhereHeadendsAreAlike) {
  const STATUSCODE cannot = HTTP_SESSION_ERROR_CANNOT_CONNECT;
  const STATUSCODE unknown = HTTP_SESSION_ERROR_DNS_RESOLUTION;
  for (const Case& each : std::vector<Case>{
           {"alike", Kind::None, {page("a", 400), page("b", 400)}},
           {"bait silent",
            Kind::None,
            {page("a", 400)},
            failed("x", HTTP_SESSION_ERROR_TIMEOUT, 0)},
           {"one page", Kind::Portal, {page("a", 200)}, page("x", 200), {}, 1},
           {"another page", Kind::None, {page("a", 400)}, page("x", 503)},
           {"let through", Kind::Portal, {page("a", 200), page("b", 400)}, page("x", 200), {}, 1},
           {"511", Kind::Portal, {page("a", 511)}, {}, {}, 1},
           {"login", Kind::Portal, {page("a", 302, "p"), page("b", 302, "p")}, {}, {}, 2},
           {"one alone", Kind::None, {page("a", 302, "p")}},
           {"apart", Kind::None, {page("a", 302, "p"), page("b", 302, "p", 30'000)}},
           {"own page", Kind::None, {page("a.b.c", 302, "w.b.c"), page("d.e", 302, "w.b.c")}},
           {"resets", Kind::Reset, {at("a", NotHttp, 1, 1)}, at("x", NotHttp, 1, 1), {}, 1},
           {"behind a box", Kind::None, {at("a", NotHttp, 1, 90'000)}, at("x", NotHttp, 1, 1)},
           {"refuses",
            Kind::Reset,
            {failed("a", cannot, ECONNREFUSED)},
            failed("x", cannot, ECONNREFUSED)},
           {"down", Kind::None, {failed("a", cannot, ECONNREFUSED)}},
           {"sinkhole", Kind::OneAddress, {led("a", "192.0.2.1")}, {}, led("x", "192.0.2.1"), 1},
           {"by address", Kind::None, {led("192.0.2.1", "192.0.2.1")}, {}, led("x", "192.0.2.1")},
           {"balanced", Kind::None, {led("a", "192.0.2.1"), led("b", "192.0.2.1")}},
           {"loopback", Kind::OneAddress, {led("a", "127.0.0.1")}, {}, {}, 1},
           {"localhost", Kind::None, {led("localhost", "127.0.0.1"), led("::1", "127.0.0.1")}},
           {"inspected", Kind::Inspector, {shown("a", "I"), shown("b", "I")}, {}, {}, 2},
           {"own authority", Kind::None, {shown("a", "I"), shown("b", "I", 30'000)}},
           {"self-signed", Kind::None, {shown("a", "A"), shown("b", "B")}},
           {"no network",
            Kind::NoNetwork,
            {failed("a", unknown, 0), failed("192.0.2.1", cannot, ENETUNREACH)},
            failed("x", cannot, ENETUNREACH)},
           {"no names",
            Kind::None,
            {failed("a", unknown, 0)},
            failed("x", HTTP_SESSION_ERROR_TIMEOUT, 0)}}) {
    std::map<Place, SelectionRecord::Track> tracks;
    for (const Report& report : each.reports) {
      tracks[{report.host, 443}].ended.push_back(report);
    }
    const SelectionDoubt doubt = doubtOf(tracks, {each.address, each.name});
    EXPECT_EQ(doubt.kind, each.kind) << each.what;
    EXPECT_EQ(doubt.places.size(), each.places) << each.what;
  }
}
