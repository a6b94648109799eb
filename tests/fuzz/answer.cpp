// Answers of headends. How an answer is cut into pieces does not matter; what is kept of it is
// bounded and stands in it; after a whole one, nothing else is one.

#include <string>

#include "tests/fuzz/require.h"
#include "vpn/Common/IP/AnswerReader.h"

namespace {

constexpr std::size_t MostKept = 64UL * 1024;

AnswerReader read(const std::string& text, std::size_t size, bool takesBody) {
  AnswerReader reader(takesBody);
  for (std::size_t i = 0; i < text.size(); i += size) {
    reader.take(std::string_view(text).substr(i, size));
  }
  return reader;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = tests::textOf(data, size);
  for (const bool takesBody : {false, true}) {
    AnswerReader whole = read(text, text.size() + 1, takesBody);
    const bool isWhole = whole.isWhole();
    const std::string lines = whole.takeLines();
    const std::string location = whole.takeLocation();
    REQUIRE(lines.size() <= MostKept && location.size() <= text.size());
    REQUIRE(takesBody || !isWhole);
    REQUIRE(!whole.isHeadComplete() || (whole.code() == 0 && whole.status() >= 101));
    for (const std::size_t piece : {std::size_t{1}, std::size_t{5}}) {
      AnswerReader cut = read(text, piece, takesBody);
      REQUIRE(cut.code() == whole.code() && cut.status() == whole.status());
      REQUIRE(cut.isWhole() == isWhole && cut.isHeadComplete() == whole.isHeadComplete());
      REQUIRE(cut.takeLines() == lines && cut.takeLocation() == location);
    }
    REQUIRE(!isWhole || !read(text + "x", text.size() + 2, takesBody).isWhole());
  }
  return 0;
}
