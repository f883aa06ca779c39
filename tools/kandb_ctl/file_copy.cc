#include "kandb_ctl/file_copy.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "common/posix_file.h"

namespace kandb::ctl {

namespace {

class Sha256 {
 public:
  Sha256() { EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr); }
  void Add(std::string_view bytes) { EVP_DigestUpdate(context.get(), bytes.data(), bytes.size()); }
  std::string Finish() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    EVP_DigestFinal_ex(context.get(), digest, &size);
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < size; ++i) {
      text += kDigits[digest[i] >> 4];
      text += kDigits[digest[i] & 15];
    }
    return text;
  }

 private:
  const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context{EVP_MD_CTX_new(),
                                                                   EVP_MD_CTX_free};
};

// Hands the bytes of a file to `take`, which returns an errno value, in pieces.
int ReadPieces(const std::string& path, const std::function<int(std::string_view)>& take) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.valid()) return errno;
  std::string piece(std::size_t{1} << 20, '\0');
  for (int error = 0;;) {
    const std::size_t count = ReadFully(file.get(), piece.data(), piece.size(), &error);
    if (count > 0) {
      if (const int failed = take({piece.data(), count}); failed != 0) return failed;
    }
    if (error != 0 || count < piece.size()) return error;
  }
}

UniqueFd Create(const std::string& path) {
  return UniqueFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640));
}

}  // namespace

Status CopyFile(const std::string& from, const std::string& to, const CountBytes& count,
                std::string* sum) {
  const UniqueFd file = Create(to);
  int error = file.valid() ? 0 : errno;
  Sha256 sha;
  if (error == 0) {
    error = ReadPieces(from, [&](std::string_view piece) {
      sha.Add(piece);
      count(piece.size());
      return WriteFully(file.get(), piece);
    });
  }
  if (error == 0 && file_calls.fsync(file.get()) != 0) error = errno;
  if (error != 0) {
    return Status::Corruption("cannot copy " + from + " to " + to + ": " + ErrnoText(error));
  }
  *sum = sha.Finish();
  return {};
}

Status WriteNewFile(const std::string& path, std::string_view bytes, std::string* sum) {
  const UniqueFd file = Create(path);
  int error = file.valid() ? WriteFully(file.get(), bytes) : errno;
  if (error == 0 && file_calls.fsync(file.get()) != 0) error = errno;
  if (error != 0) return Status::Corruption("cannot write " + path + ": " + ErrnoText(error));
  Sha256 sha;
  sha.Add(bytes);
  *sum = sha.Finish();
  return {};
}

Status SumFile(const std::string& path, const CountBytes& count, std::string* sum) {
  Sha256 sha;
  const int error = ReadPieces(path, [&](std::string_view piece) {
    sha.Add(piece);
    count(piece.size());
    return 0;
  });
  if (error != 0) return Status::Corruption("cannot read " + path + ": " + ErrnoText(error));
  *sum = sha.Finish();
  return {};
}

Status SyncDirectory(const std::string& dir) {
  const UniqueFd file(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (file.valid() && file_calls.fsync(file.get()) == 0) return {};
  const int error = errno;
  return Status::Corruption("cannot sync " + dir + ": " + ErrnoText(error));
}

}  // namespace kandb::ctl
