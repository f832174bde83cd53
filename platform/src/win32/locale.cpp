// Locales: the process's default LCID (settable, $ARCHIVEDEPOT_LCID, else 1033), per-thread
// locale and UI language, and GetLocaleInfo over a built-in table of common locales.
#include <strings.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

#include "adplatform.h"
#include "adplatform_ui.h"
#include "errhandlingapi.h"
#include "win32/unicode.h"
#include "winerror.h"
#include "winnls.h"

namespace {

struct LocaleInfo {
  LCID lcid;
  const char* name;         // LOCALE_SNAME
  const char* language;     // LOCALE_SENGLISHLANGUAGENAME
  const char* country;      // LOCALE_SENGLISHCOUNTRYNAME
  const char* nativeName;   // LOCALE_SNATIVELANGUAGENAME
  const char* abbreviated;  // LOCALE_SABBREVLANGNAME
  int countryCode;          // LOCALE_ICOUNTRY
};

// The languages of the product's string tables and their common neighbours.
const LocaleInfo kLocales[] = {
    {0x0409, "en-US", "English", "United States", "English", "ENU", 1},
    {0x0809, "en-GB", "English", "United Kingdom", "English", "ENG", 44},
    {0x0C09, "en-AU", "English", "Australia", "English", "ENA", 61},
    {0x1009, "en-CA", "English", "Canada", "English", "ENC", 2},
    {0x0407, "de-DE", "German", "Germany", "Deutsch", "DEU", 49},
    {0x0807, "de-CH", "German", "Switzerland", "Deutsch", "DES", 41},
    {0x0C07, "de-AT", "German", "Austria", "Deutsch", "DEA", 43},
    {0x040C, "fr-FR", "French", "France", "fran\xC3\xA7" "ais", "FRA", 33},
    {0x0C0C, "fr-CA", "French", "Canada", "fran\xC3\xA7" "ais", "FRC", 2},
    {0x080C, "fr-BE", "French", "Belgium", "fran\xC3\xA7" "ais", "FRB", 32},
    {0x100C, "fr-CH", "French", "Switzerland", "fran\xC3\xA7" "ais", "FRS", 41},
    {0x0C0A, "es-ES", "Spanish", "Spain", "espa\xC3\xB1ol", "ESN", 34},
    {0x080A, "es-MX", "Spanish", "Mexico", "espa\xC3\xB1ol", "ESM", 52},
    {0x0410, "it-IT", "Italian", "Italy", "italiano", "ITA", 39},
    {0x0413, "nl-NL", "Dutch", "Netherlands", "Nederlands", "NLD", 31},
    {0x0813, "nl-BE", "Dutch", "Belgium", "Nederlands", "NLB", 32},
    {0x0416, "pt-BR", "Portuguese", "Brazil", "portugu\xC3\xAAs", "PTB", 55},
    {0x0816, "pt-PT", "Portuguese", "Portugal", "portugu\xC3\xAAs", "PTG", 351},
    {0x0411, "ja-JP", "Japanese", "Japan", "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", "JPN", 81},
    {0x0412, "ko-KR", "Korean", "Korea", "\xED\x95\x9C\xEA\xB5\xAD\xEC\x96\xB4", "KOR", 82},
    {0x0804, "zh-CN", "Chinese", "China", "\xE4\xB8\xAD\xE6\x96\x87", "CHS", 86},
    {0x0404, "zh-TW", "Chinese", "Taiwan", "\xE4\xB8\xAD\xE6\x96\x87", "CHT", 886},
    {0x0C04, "zh-HK", "Chinese", "Hong Kong SAR", "\xE4\xB8\xAD\xE6\x96\x87", "ZHH", 852},
    {0x7C04, "zh-Hant", "Chinese (Traditional)", "", "\xE4\xB8\xAD\xE6\x96\x87", "ZHH", 886},
    {0x0419, "ru-RU", "Russian", "Russia", "\xD1\x80\xD1\x83\xD1\x81\xD1\x81\xD0\xBA\xD0\xB8\xD0\xB9", "RUS", 7},
    {0x041D, "sv-SE", "Swedish", "Sweden", "svenska", "SVE", 46},
    {0x0406, "da-DK", "Danish", "Denmark", "dansk", "DAN", 45},
    {0x0414, "nb-NO", "Norwegian Bokm\xC3\xA5l", "Norway", "norsk bokm\xC3\xA5l", "NOR", 47},
    {0x040B, "fi-FI", "Finnish", "Finland", "suomi", "FIN", 358},
    {0x0415, "pl-PL", "Polish", "Poland", "polski", "PLK", 48},
    {0x0405, "cs-CZ", "Czech", "Czechia", "\xC4\x8D" "e\xC5\xA1tina", "CSY", 420},
    {0x040E, "hu-HU", "Hungarian", "Hungary", "magyar", "HUN", 36},
    {0x041F, "tr-TR", "Turkish", "Turkey", "T\xC3\xBCrk\xC3\xA7" "e", "TRK", 90},
    {0x0408, "el-GR", "Greek", "Greece", "\xCE\x95\xCE\xBB\xCE\xBB\xCE\xB7\xCE\xBD\xCE\xB9\xCE\xBA\xCE\xAC", "ELL", 30},
    {0x040D, "he-IL", "Hebrew", "Israel", "\xD7\xA2\xD7\x91\xD7\xA8\xD7\x99\xD7\xAA", "HEB", 972},
    {0x0401, "ar-SA", "Arabic", "Saudi Arabia", "\xD8\xA7\xD9\x84\xD8\xB9\xD8\xB1\xD8\xA8\xD9\x8A\xD8\xA9", "ARA", 966},
    {0x0422, "uk-UA", "Ukrainian", "Ukraine", "\xD1\x83\xD0\xBA\xD1\x80\xD0\xB0\xD1\x97\xD0\xBD\xD1\x81\xD1\x8C\xD0\xBA\xD0\xB0", "UKR", 380},
    {0x0418, "ro-RO", "Romanian", "Romania", "rom\xC3\xA2n\xC4\x83", "ROM", 40},
    {0x041B, "sk-SK", "Slovak", "Slovakia", "sloven\xC4\x8D" "ina", "SKY", 421},
    {0x0424, "sl-SI", "Slovenian", "Slovenia", "sloven\xC5\xA1\xC4\x8D" "ina", "SLV", 386},
    {0x041A, "hr-HR", "Croatian", "Croatia", "hrvatski", "HRV", 385},
    {0x0402, "bg-BG", "Bulgarian", "Bulgaria", "\xD0\xB1\xD1\x8A\xD0\xBB\xD0\xB3\xD0\xB0\xD1\x80\xD1\x81\xD0\xBA\xD0\xB8", "BGR", 359},
    {0x041E, "th-TH", "Thai", "Thailand", "\xE0\xB9\x84\xE0\xB8\x97\xE0\xB8\xA2", "THA", 66},
    {0x042A, "vi-VN", "Vietnamese", "Vietnam", "Ti\xE1\xBA\xBFng Vi\xE1\xBB\x87t", "VIT", 84},
    {0x0421, "id-ID", "Indonesian", "Indonesia", "Indonesia", "IND", 62},
    {0x0439, "hi-IN", "Hindi", "India", "\xE0\xA4\xB9\xE0\xA4\xBF\xE0\xA4\x82\xE0\xA4\xA6\xE0\xA5\x80", "HIN", 91},
};

constexpr LCID kFallbackLcid = 0x0409;

std::atomic<LCID> g_defaultOverride{0};
thread_local LCID t_threadLocale = 0;
thread_local LANGID t_threadUILanguage = 0;

const LocaleInfo* FindLocale(LCID lcid) {
  const LANGID lang = LANGIDFROMLCID(lcid);
  for (const LocaleInfo& info : kLocales)
    if (info.lcid == lang) return &info;
  return nullptr;
}

LCID LcidFromEnvironment() {
  const char* value = std::getenv("ARCHIVEDEPOT_LCID");
  if (!value || !*value) return 0;
  char* end = nullptr;
  unsigned long parsed = std::strtoul(value, &end, 0);
  return end && *end == '\0' && parsed <= 0xFFFFFFFFul ? static_cast<LCID>(parsed) : 0;
}

LCID DefaultLcid() {
  if (LCID set = g_defaultOverride.load(std::memory_order_relaxed)) return set;
  if (LCID env = LcidFromEnvironment()) return env;
  return kFallbackLcid;
}

// LOCALE_USER_DEFAULT and kin name the default locale.
LCID Resolve(LCID lcid) {
  const LANGID lang = LANGIDFROMLCID(lcid);
  if (lang == LANG_USER_DEFAULT || lang == LANG_SYSTEM_DEFAULT || lang == 0 || lcid == LOCALE_CUSTOM_DEFAULT ||
      lcid == LOCALE_CUSTOM_UNSPECIFIED)
    return DefaultLcid();
  if (lang == LANGIDFROMLCID(LOCALE_INVARIANT)) return kFallbackLcid;
  return lcid;
}

std::string Hex4(DWORD v) {
  static const char kDigits[] = "0123456789abcdef";
  std::string s(4, '0');
  for (int i = 3; i >= 0; --i, v >>= 4) s[static_cast<size_t>(i)] = kDigits[v & 0xF];
  return s;
}

// The value of one information type as text, with its numeric form where it has one.
bool LocaleValue(const LocaleInfo& info, LCTYPE type, std::string& text, DWORD& number, bool& numeric) {
  numeric = false;
  std::string iso639(info.name, std::strcspn(info.name, "-"));
  const char* dash = std::strchr(info.name, '-');
  switch (type) {
    case LOCALE_ILANGUAGE: text = Hex4(LANGIDFROMLCID(info.lcid)), number = LANGIDFROMLCID(info.lcid), numeric = true; return true;
    case LOCALE_SLOCALIZEDDISPLAYNAME:
    case LOCALE_SENGLISHDISPLAYNAME:
      text = info.language;
      if (*info.country) text += std::string(" (") + info.country + ")";
      return true;
    case LOCALE_SABBREVLANGNAME: text = info.abbreviated; return true;
    case LOCALE_SNATIVELANGUAGENAME: text = info.nativeName; return true;
    case LOCALE_ICOUNTRY:
    case LOCALE_IDEFAULTCOUNTRY:
      number = static_cast<DWORD>(info.countryCode), text = std::to_string(info.countryCode), numeric = true;
      return true;
    case LOCALE_SLOCALIZEDCOUNTRYNAME:
    case LOCALE_SENGLISHCOUNTRYNAME: text = info.country; return true;
    case LOCALE_IDEFAULTLANGUAGE: text = Hex4(LANGIDFROMLCID(info.lcid)), number = LANGIDFROMLCID(info.lcid), numeric = true; return true;
    case LOCALE_IDEFAULTCODEPAGE:
    case LOCALE_IDEFAULTANSICODEPAGE:
    case LOCALE_IDEFAULTMACCODEPAGE: number = CP_UTF8, text = std::to_string(CP_UTF8), numeric = true; return true;
    case LOCALE_SENGLISHLANGUAGENAME: text = info.language; return true;
    case LOCALE_SISO639LANGNAME: text = iso639; return true;
    case LOCALE_SISO3166CTRYNAME: text = dash && std::strlen(dash + 1) == 2 ? dash + 1 : ""; return true;
    case LOCALE_SNAME: text = info.name; return true;
    default: return false;
  }
}

int Fail(DWORD error) {
  SetLastError(error);
  return 0;
}

// Copies a result with the published size rules; cch counts the terminator.
template <class Char>
int Deliver(const std::basic_string<Char>& value, Char* out, int cch) {
  const int needed = static_cast<int>(value.size()) + 1;
  if (cch == 0) return needed;
  if (!out || cch < needed) return Fail(ERROR_INSUFFICIENT_BUFFER);
  std::memcpy(out, value.c_str(), static_cast<size_t>(needed) * sizeof(Char));
  return needed;
}

// The common part of GetLocaleInfoA/W: the text, or a DWORD for LOCALE_RETURN_NUMBER.
template <class Char>
int GetInfo(LCID locale, LCTYPE type, Char* out, int cch) {
  if (cch < 0 || (cch > 0 && !out)) return Fail(ERROR_INVALID_PARAMETER);
  const LocaleInfo* info = FindLocale(Resolve(locale));
  if (!info) return Fail(ERROR_INVALID_PARAMETER);
  const bool wantNumber = (type & LOCALE_RETURN_NUMBER) != 0;
  std::string text;
  DWORD number = 0;
  bool numeric = false;
  if (!LocaleValue(*info, type & ~(LOCALE_NOUSEROVERRIDE | LOCALE_USE_CP_ACP | LOCALE_RETURN_NUMBER), text, number,
                   numeric) ||
      (wantNumber && !numeric))
    return Fail(ERROR_INVALID_FLAGS);
  if (wantNumber) {
    const int units = static_cast<int>(sizeof(DWORD) / sizeof(Char));
    if (cch == 0) return units;
    if (cch < units) return Fail(ERROR_INSUFFICIENT_BUFFER);
    std::memcpy(out, &number, sizeof number);
    return units;
  }
  if constexpr (sizeof(Char) == 1)
    return Deliver(text, out, cch);
  else
    return Deliver(adp::Utf8ToUtf16(text.c_str()), out, cch);
}

}  // namespace

namespace adp {

void SetDefaultLCID(LCID lcid) { g_defaultOverride.store(lcid, std::memory_order_relaxed); }

}  // namespace adp

extern "C" {

LCID GetUserDefaultLCID() { return DefaultLcid(); }
LCID GetSystemDefaultLCID() { return DefaultLcid(); }
LANGID GetUserDefaultLangID() { return LANGIDFROMLCID(DefaultLcid()); }
LANGID GetSystemDefaultLangID() { return LANGIDFROMLCID(DefaultLcid()); }
LANGID GetUserDefaultUILanguage() { return LANGIDFROMLCID(DefaultLcid()); }
LANGID GetSystemDefaultUILanguage() { return LANGIDFROMLCID(DefaultLcid()); }

LCID GetThreadLocale() { return t_threadLocale ? t_threadLocale : DefaultLcid(); }

BOOL SetThreadLocale(LCID Locale) {
  if (!FindLocale(Resolve(Locale))) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  t_threadLocale = Resolve(Locale) == Locale ? Locale : 0;  // a default alias keeps following the default
  return TRUE;
}

LANGID GetThreadUILanguage() { return t_threadUILanguage ? t_threadUILanguage : GetUserDefaultUILanguage(); }

LANGID SetThreadUILanguage(LANGID LangId) {
  if (LangId != 0 && !FindLocale(LangId)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  t_threadUILanguage = LangId;
  return GetThreadUILanguage();
}

BOOL IsValidLocale(LCID Locale, DWORD dwFlags) {
  return FindLocale(Locale) != nullptr && (dwFlags == LCID_INSTALLED || dwFlags == LCID_SUPPORTED) ? TRUE : FALSE;
}

int GetLocaleInfoA(LCID Locale, LCTYPE LCType, LPSTR lpLCData, int cchData) {
  return GetInfo(Locale, LCType, lpLCData, cchData);
}

int GetLocaleInfoW(LCID Locale, LCTYPE LCType, LPWSTR lpLCData, int cchData) {
  return GetInfo(Locale, LCType, lpLCData, cchData);
}

int LCIDToLocaleName(LCID Locale, LPWSTR lpName, int cchName, DWORD dwFlags) {
  if (dwFlags & ~LOCALE_ALLOW_NEUTRAL_NAMES) return Fail(ERROR_INVALID_FLAGS);
  if (cchName < 0 || (cchName > 0 && !lpName)) return Fail(ERROR_INVALID_PARAMETER);
  const LocaleInfo* info = FindLocale(Resolve(Locale));
  if (!info) return Fail(ERROR_INVALID_PARAMETER);
  return Deliver(adp::Utf8ToUtf16(info->name), lpName, cchName);
}

LCID LocaleNameToLCID(LPCWSTR lpName, DWORD dwFlags) {
  if (dwFlags & ~LOCALE_ALLOW_NEUTRAL_NAMES) {
    SetLastError(ERROR_INVALID_FLAGS);
    return 0;
  }
  if (!lpName) return DefaultLcid();  // LOCALE_NAME_USER_DEFAULT
  const std::string name = adp::Utf16ToUtf8(lpName);
  if (name.empty()) return LOCALE_INVARIANT;
  for (const LocaleInfo& info : kLocales) {
    if (strcasecmp(info.name, name.c_str()) == 0) return info.lcid;
  }
  SetLastError(ERROR_INVALID_PARAMETER);
  return 0;
}

}  // extern "C"
