#include "service/passwords.h"

#include "files/backup.h"
#include "files/md5_sidecar.h"
#include "log/keldebug.h"
#include "paths.h"
#include "qlibc/use_qlibc.h"
#include "service/param_list.h"
#include "service/storage.h"
#include "text/text.h"

#include <unistd.h>

#include <cstring>

namespace kelconf {

std::uint8_t support_campass = 1;

namespace {

// The length counts anew after every byte: one that becomes 0 ends the text there.
void shiftBytes(char* text, std::int32_t offset) {
    for (char* c = text; *c != '\0'; ++c) {
        *c = static_cast<char>(static_cast<unsigned char>(*c) + static_cast<unsigned>(offset));
        if (*c == '\0') {
            return;
        }
    }
}

void unscramble(ParamElement& element) {
    const OwnedText copy{newText(element.value)};
    if (copy) {
        qbase64_decode(copy.get());
        simple_decrypt(copy.get(), kScramblingKey);
        replaceText(element.value, copy.get());
    }
}

} // namespace

bool isPasswordName(const char* name) {
    return std::strstr(name, "password") != nullptr || std::strstr(name, "passwd") != nullptr;
}

void simple_encrypt(char* text, std::int32_t key) {
    if (text != nullptr) {
        shiftBytes(text, -key);
    }
}

void simple_decrypt(char* text, std::int32_t key) {
    if (text != nullptr) {
        shiftBytes(text, key);
    }
}

std::string scrambledForm(const char* plain) {
    const OwnedText copy{newText(viewOf(plain))};
    if (!copy) {
        return {};
    }
    simple_encrypt(copy.get(), kScramblingKey);
    const OwnedText encoded{qbase64_encode(copy.get(), std::strlen(copy.get()))};
    return std::string{viewOf(encoded.get())};
}

std::int32_t encryptAllPasswordInDB() {
    ParamElement* flag = seekParamElement(kPasswordSwitch);
    if (flag == nullptr) {
        return 0;
    }
    if (viewOf(flag->value) == "1") {
        return 1;
    }
    keldebug(kLogInfo, kToBoth, "encrypt password\n");
    replaceText(flag->value, "1");
    const bool sound = storage().convertPasswords();
    sync();
    if (sound) { // a torn file is no backup
        creatBackupDB();
        sync();
        createFileMD5(paths::kBackupDb, paths::kBackupDbMd5);
        sync();
    }
    return 0;
}

void restorPlainPassword() {
    if (checkPasswordEncryption() != 1) {
        return;
    }
    keldebug(kLogInfo, kToBoth, "decrypt to plain text\n");
    for (std::int32_t i = 0; i < CheckParamListLength(); ++i) {
        ParamElement* element = paramElementAt(static_cast<std::uint32_t>(i));
        if (element != nullptr && isPasswordName(element->name) && strlens(element->value) > 0) {
            unscramble(*element);
        }
    }
}

std::int32_t checkPasswordEncryption() {
    const ParamElement* flag = seekParamElement(kPasswordSwitch);
    return flag != nullptr && viewOf(flag->value) != "0" ? 1 : 0;
}

std::int32_t validatePrivateCampass() {
    return seekParamElement(kPasswordSwitch) != nullptr ? 1 : 0;
}

void setExtFeatureStatus(const char* text) {
    if (text == nullptr) {
        return;
    }
    if (ParamElement* element = seekParamElement("private.ext_features")) {
        replaceText(element->value, text);
    }
}

} // namespace kelconf
