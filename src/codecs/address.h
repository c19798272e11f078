// Address lists: splitting a header's free text into items, the bare
// address ("Pure" form) and the display name of each, and a strict syntax
// check of one address. The parsers never fail; an item they cannot read
// gives an empty entry.
//
//   list  = item *(("," / ";") item)
//   item  = [phrase] "<" local-part "@" domain ">" [comment]
//         / local-part "@" domain [comment]
#pragma once

#include <vector>

#include "foundation/bstring.h"

namespace kv {

// Pairs whose contents never split a list, and the pairs of the tokenizer.
inline constexpr const char* kAddressItemPairs = "\"\"()<>[]";
inline constexpr const char* kAddressSeparators = ",;";
inline constexpr const char* kAddressStructurePairs = "<>()";
inline constexpr const char* kAddressProtectionPairs = "\"\"[]";

// Items of a list; an item is cut only once it holds an address.
std::vector<bstring>& SplitAddressList(const bstring& text, std::vector<bstring>& items);
std::vector<wbstring>& SplitAddressList(const wbstring& text, std::vector<wbstring>& items);

// Tokens of one item: "<...>" and "(...)" blocks and the text between.
std::vector<bstring>& TokenizeAddress(const bstring& item, std::vector<bstring>& tokens);
std::vector<wbstring>& TokenizeAddress(const wbstring& item, std::vector<wbstring>& tokens);

// 'John <j@x>' gives 'j@x', 'j@x (John)' gives 'j@x'.
bstring ExtractPureAddress(const bstring& item);
// 'John <j@x>' gives 'John', 'j@x (John)' gives 'John', '<j@x>' gives 'j@x'.
wbstring ExtractFriendlyName(const wbstring& item);

// One entry per item, empty entries included.
std::vector<bstring>& ParsePureAddresses(const bstring& text, std::vector<bstring>& list);
std::vector<wbstring>& ParseFriendlyNames(const wbstring& text, std::vector<wbstring>& list);

// 0 invalid, 1 valid with a domain, 2 valid with an address literal
// ("a@[1.2.3.4]").
int ValidateAddressSyntax(const bstring& address);

// The text behind the last "@"; false when there is none or it stands last.
bool GetAddressHost(const bstring& address, bstring& host);

// Whether an address is acceptable. Options bit 1 asks the DNS for a mail
// server of the domain (bit 2 goes on to the lookup); dns_server, when not
// empty, is the server to ask. The outcome is only the result; the trace
// says why.
bool ValidateEmailAddress(const bstring& address, int32_t options, const bstring& dns_server);

}  // namespace kv
