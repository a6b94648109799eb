#pragma once

#include <string>
#include <vector>

/// A host and where it stands: "hosts.txt:3: ", or nothing for the command line.
struct ListedHost {
  std::string text;
  std::string where;
};

/// Replaces each "@FILE", and "-" for standard input, by the hosts that stand there, one a line; a
/// '#' begins a comment.
/// @return an empty string, or what is wrong and what to do.
std::string listHosts(const std::vector<std::string>& typed, std::vector<ListedHost>& hosts);
