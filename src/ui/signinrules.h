#pragma once

#include <QString>

// What the sign-in form accepts and what it sends: the decisions behind its buttons and requests, apart
// from the widgets so that every case can be checked directly.
namespace SignInRules {

// "Email me a code" asks no more of the address than an "@".
bool canSendCode(const QString& email);

// The address as sent to ask for a code: spaces, tabs and other space separators removed from both ends,
// line breaks kept (a pasted address keeps what the user can see).
QString trimmedEmail(const QString& email);

// The address as sent with the code and stored: trimmed as above and lower-cased.
QString verifiedEmail(const QString& email);

// The characters of `code` that are numbers, in order; everything else the user typed is dropped.
QString codeDigits(const QString& code);

// "Continue" needs exactly six numbers in the code, whatever else surrounds them.
bool canVerify(const QString& code);

}  // namespace SignInRules
