// KySysEncoding: which character encoding the operating system uses for each kind of
// system text (file names, user database, DNS names, interface names, password crypt,
// system information, internet addresses, shell). Built from the locale's code set.
#pragma once

#include <array>

class KySysEncoding {
public:
    // Calls setlocale(LC_CTYPE, "") and records the locale's code set for every purpose.
    KySysEncoding();

    void SetAll(int encoding, int option);

    int FileSystem() const { return Get(FileSystemPurpose).encoding; }
    int FileSystemOpt() const { return Get(FileSystemPurpose).option; }
    int UserDB() const { return Get(UserDBPurpose).encoding; }
    int UserDBOpt() const { return Get(UserDBPurpose).option; }
    int DNSName() const { return Get(DNSNamePurpose).encoding; }
    int DNSNameOpt() const { return Get(DNSNamePurpose).option; }
    int IfName() const { return Get(IfNamePurpose).encoding; }
    int IfNameOpt() const { return Get(IfNamePurpose).option; }
    int Crypt() const { return Get(CryptPurpose).encoding; }
    int CryptOpt() const { return Get(CryptPurpose).option; }
    int SysInfo() const { return Get(SysInfoPurpose).encoding; }
    int SysInfoOpt() const { return Get(SysInfoPurpose).option; }
    int InetAddr() const { return Get(InetAddrPurpose).encoding; }
    int InetAddrOpt() const { return Get(InetAddrPurpose).option; }
    int Shell() const { return Get(ShellPurpose).encoding; }
    int ShellOpt() const { return Get(ShellPurpose).option; }

private:
    enum Purpose {
        FileSystemPurpose,
        UserDBPurpose,
        DNSNamePurpose,
        IfNamePurpose,
        CryptPurpose,
        SysInfoPurpose,
        InetAddrPurpose,
        ShellPurpose,
        PurposeCount
    };
    struct Setting {
        int encoding = 0;
        int option = 0;
    };
    const Setting& Get(Purpose purpose) const { return settings_[purpose]; }

    std::array<Setting, PurposeCount> settings_{};
};
