#include "platform/person_name.h"

#include <algorithm>
#include <array>
#include <span>
#include <vector>

#include "base/utf8.h"

namespace vondle {
namespace {

using Words = std::vector<std::string_view>;

constexpr std::array<std::string_view, 14> TITLES = {"dr",  "prof", "mr",   "mrs",  "ms",  "miss", "mx",
                                                     "sir", "dame", "lord", "lady", "rev", "fr",   "hon"};
constexpr std::array<std::string_view, 10> SUFFIXES = {"jr", "sr", "ii", "iii", "iv", "phd", "md", "esq", "dds", "mba"};
constexpr std::array<std::string_view, 25> PARTICLES = {"van", "von", "der", "den", "de",  "del", "della", "di", "da",
                                                        "dos", "das", "du",  "la",  "le",  "bin", "ibn",   "al", "el",
                                                        "zu",  "zur", "ten", "ter", "vom", "af",  "av"};
// East Asian family names of two signs; every other one counts as one sign.
constexpr std::array<std::string_view, 17> TWO_SIGN_FAMILY_NAMES = {"欧阳", "歐陽", "司马", "司馬", "诸葛", "諸葛",
                                                                    "上官", "司徒", "南宫", "南宮", "남궁", "황보",
                                                                    "제갈", "선우", "독고", "사공", "서문"};

std::string plain(std::string_view word) {
  std::string out;
  for (const char c : word) {
    if (c >= 'A' && c <= 'Z')
      out += static_cast<char>(c - 'A' + 'a');
    else if (c != '.' && c != ',')
      out += c;
  }
  return out;
}

bool isOneOf(std::string_view word, std::span<const std::string_view> list) {
  return std::ranges::find(list, plain(word)) != list.end();
}

bool hasLetter(std::string_view text) {
  return std::ranges::any_of(
      text, [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c & 0x80) != 0; });
}

constexpr std::string_view BLANKS = " \t\r\n";

// Commas stand at the end of a word only, one at most, and not before the first.
std::string withTidyCommas(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const auto end = std::min(text.find(','), text.size());
    out += text.substr(0, end);
    out.erase(out.find_last_not_of(BLANKS) + 1);
    text.remove_prefix(std::min(text.find_first_not_of(std::string(BLANKS) + ",", end), text.size()));
    if (!out.empty() && !text.empty()) out += ", ";
  }
  return out;
}

Words split(std::string_view text) {
  Words words;
  std::size_t at = 0;
  while ((at = text.find_first_not_of(BLANKS, at)) != std::string_view::npos) {
    const auto end = std::min(text.find_first_of(BLANKS, at), text.size());
    words.push_back(text.substr(at, end - at));
    at = end;
  }
  return words;
}

std::optional<std::string> join(std::span<const std::string_view> words) {
  if (words.empty()) return std::nullopt;
  std::string out(words.front());
  for (const auto word : words.subspan(1)) out.append(" ").append(word);
  while (out.ends_with(',')) out.pop_back();
  return out;
}

// The number of Han or Hangul signs (three bytes each) that the word is made of; 0 when it holds anything else.
std::size_t eastAsianSigns(std::string_view word) {
  std::size_t count = 0;
  for (; !word.empty(); ++count) {
    const auto [code, length] = firstUTF8Character(word);
    const bool isHan = code >= 0x3400 && code <= 0x9FFF;
    const bool isHangul = code >= 0xAC00 && code <= 0xD7A3;
    if (!isHan && !isHangul) return 0;
    word.remove_prefix(length);
  }
  return count;
}

// Titles in front and suffixes behind go to the components; what is left is the name proper.
Words withoutTitlesAndSuffixes(Words words, PersonNameComponents& components) {
  auto last = words.end();
  while (last - words.begin() > 1 && isOneOf(*(last - 1), SUFFIXES)) --last;
  components.nameSuffix = join({last, words.end()});
  auto first = words.begin();
  while (last - first > 1 && isOneOf(*first, TITLES)) ++first;
  components.namePrefix = join({words.begin(), first});
  return {first, last};
}

void splitEastAsian(std::string_view word, PersonNameComponents& components) {
  const auto signs = word.size() / 3;
  const bool twoSigns = signs == 4 || (signs == 3 && isOneOf(word.substr(0, 6), TWO_SIGN_FAMILY_NAMES));
  const std::size_t familyBytes = twoSigns ? 6 : 3;
  components.familyName = word.substr(0, familyBytes);
  components.givenName = word.substr(familyBytes);
}

}  // namespace

std::optional<PersonNameComponents> parsePersonName(std::string_view text) {
  if (!hasLetter(text)) return std::nullopt;
  PersonNameComponents components;
  const std::string tidy = withTidyCommas(text);
  const Words words = withoutTitlesAndSuffixes(split(tidy), components);

  const auto comma = std::ranges::find_if(words, [](std::string_view word) { return word.ends_with(','); });
  if (comma != words.end() && comma + 1 != words.end()) {  // family, given middle
    components.familyName = join({words.begin(), comma + 1});
    components.givenName = join({comma + 1, comma + 2});
    components.middleName = join({comma + 2, words.end()});
    return components;
  }

  if (words.size() == 1) {
    const auto signs = eastAsianSigns(words.front());
    if (signs >= 2 && signs <= 4)
      splitEastAsian(words.front(), components);
    else
      components.givenName = join(words);
    return components;
  }
  if (words.size() == 2 && eastAsianSigns(words[0]) > 0 && eastAsianSigns(words[1]) > 0) {
    components.familyName = words[0];
    components.givenName = words[1];
    return components;
  }

  auto family = words.end() - 1;
  while (family - words.begin() > 1 && isOneOf(*(family - 1), PARTICLES)) --family;
  components.givenName = words.front();
  components.middleName = join({words.begin() + 1, family});
  components.familyName = join({family, words.end()});
  return components;
}

}  // namespace vondle
