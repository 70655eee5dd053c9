// Adds a CA certificate (PEM) to the "Root" store of the local machine, for the Wine end-to-end run of
// the web-service login over HTTPS. Run inside a private Wine prefix only: there the store is that
// prefix's registry, never the host's trust store.
//   rootstore.exe add FILE.pem      exit 0 when added
#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 3 || std::string(argv[1]) != "add") {
    std::fprintf(stderr, "usage: rootstore add FILE.pem\n");
    return 2;
  }
  std::ifstream f(argv[2], std::ios::binary);
  const std::string pem((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  DWORD size = 0;
  if (pem.empty() ||
      !CryptStringToBinaryA(pem.c_str(), 0, CRYPT_STRING_BASE64HEADER, nullptr, &size, nullptr, nullptr)) {
    std::fprintf(stderr, "rootstore: %s is not a PEM certificate\n", argv[2]);
    return 1;
  }
  std::vector<BYTE> der(size);
  CryptStringToBinaryA(pem.c_str(), 0, CRYPT_STRING_BASE64HEADER, der.data(), &size, nullptr, nullptr);
  HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, "Root");
  if (!store) {
    std::fprintf(stderr, "rootstore: cannot open the Root store (%lu)\n", GetLastError());
    return 1;
  }
  const BOOL ok = CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, der.data(), size,
                                                   CERT_STORE_ADD_REPLACE_EXISTING, nullptr);
  const DWORD error = GetLastError();
  CertCloseStore(store, 0);
  if (!ok) {
    std::fprintf(stderr, "rootstore: cannot add the certificate (%lu)\n", error);
    return 1;
  }
  std::printf("added\n");
  return 0;
}
