// Two-letter language codes to the three-letter codes of component records.
#include <cstring>

#include "av_control_adaptor/components.h"

namespace pavo::avctrl {
namespace {

struct LanguageCode {
  char two[3];
  char three[4];
};

// ISO 639-1 -> ISO 639-2 (bibliographic), as the receiver's pages expect.
constexpr LanguageCode kLanguageCodes[] = {
    {"ar", "ara"}, {"be", "bel"}, {"bg", "bul"}, {"ca", "cat"}, {"cs", "cze"}, {"da", "dan"},
    {"de", "ger"}, {"el", "gre"}, {"en", "eng"}, {"et", "est"}, {"fa", "per"}, {"fi", "fin"},
    {"fr", "fre"}, {"hr", "hrv"}, {"hu", "hun"}, {"id", "ind"}, {"is", "ice"}, {"it", "ita"},
    {"ja", "jpn"}, {"ko", "kor"}, {"ku", "kur"}, {"lv", "lav"}, {"mk", "mac"}, {"nl", "dut"},
    {"no", "nor"}, {"pl", "pol"}, {"es", "spa"}, {"pt", "por"}, {"ro", "rum"}, {"ru", "rus"},
    {"rn", "run"}, {"si", "sin"}, {"sk", "slo"}, {"sl", "slv"}, {"sq", "alb"}, {"sr", "srp"},
    {"th", "tha"}, {"tr", "tur"}, {"uk", "ukr"}, {"uz", "uzb"}, {"zh", "chi"}, {"vi", "vie"},
    {"he", "heb"}, {"my", "bur"}, {"sv", "swe"}, {"lt", "lit"},
};
static_assert(sizeof kLanguageCodes / sizeof kLanguageCodes[0] == 46, "46 language codes");

char ascii_lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

void normalise_language(char (&language)[4]) {
  if (language[0] != '\0' && language[1] != '\0' && language[2] == '\0') {
    const char first = ascii_lower(language[0]);
    const char second = ascii_lower(language[1]);
    const char* three = "eng";
    for (const LanguageCode& code : kLanguageCodes) {
      if (code.two[0] == first && code.two[1] == second) {
        three = code.three;
        break;
      }
    }
    std::memcpy(language, three, sizeof language);
  }
  if (std::memcmp(language, "fra", sizeof language) == 0)
    std::memcpy(language, "fre", sizeof language);
}

}  // namespace pavo::avctrl
