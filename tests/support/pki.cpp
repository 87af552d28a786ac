// pki.cpp - certificates for a test, made by the openssl program.
#include "tests/support/pki.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "tests/support/program.h"

namespace support {

namespace {

namespace fs = std::filesystem;

// The request has the key and the subject; "ca" alone can set both ends of the validity. A name's
// fields are kept only where the policy lists them.
constexpr char kConfiguration[] = R"(
[req]
distinguished_name = subject
[ca]
default_ca = authority
[authority]
database = index
new_certs_dir = issued
default_md = default
unique_subject = no
policy = subject
preserve = yes
EXTENSIONS
[subject]
countryName = optional
stateOrProvinceName = optional
localityName = optional
organizationName = optional
organizationalUnitName = optional
commonName = optional
emailAddress = optional
[extensions]
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
)";

std::string Configuration(const Pki::Wanted& wanted) {
  std::string text = kConfiguration;
  const std::string mark = "EXTENSIONS";
  std::string authority = wanted.extensions ? "x509_extensions = extensions\n" : "";
  authority += wanted.serial.empty() ? "rand_serial = yes" : "serial = serial";
  text.replace(text.find(mark), mark.size(), authority);
  if (wanted.isCa) text += "basicConstraints = critical,CA:TRUE\nkeyUsage = critical,keyCertSign\n";
  if (!wanted.names.empty() && !wanted.isCa) text += "subjectAltName = " + wanted.names + "\n";
  return text + wanted.more + "\n";  // the last of a name counts
}

std::string InDays(int days) {
  const std::time_t when = std::time(nullptr) + days * 86'400L;
  tm utc{};
  gmtime_r(&when, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%d%H%M%SZ", &utc);
  return text;
}

Words Split(const std::string& line) {
  std::istringstream words(line);
  return {std::istream_iterator<std::string>(words), {}};
}

std::string KeyOptions(const std::string& key) {
  const bool isCurve = key.rfind("P-", 0) == 0;
  return isCurve ? "ec -pkeyopt ec_paramgen_curve:" + key : key;
}

std::string Joined(const std::vector<std::string>& names) {
  std::string all;
  for (const std::string& name : names) all += (all.empty() ? "" : "-") + name;
  return all;
}

std::string NewFolder() {
  std::string path = "/tmp/kyrno_pki_XXXXXX";
  if (!mkdtemp(path.data())) throw std::runtime_error("cannot make a folder");
  return path;
}

}  // namespace

Pki::Pki() : folder(NewFolder()) {
  fs::create_directory(folder + "/issued");
  std::ofstream(folder + "/index").close();
  Make("ca", {.issuer = "ca", .subject = "/CN=Test CA", .isCa = true});
}

Pki::~Pki() {
  std::error_code ignored;
  fs::remove_all(folder, ignored);
}

void Pki::Make(const std::string& name, const Wanted& wanted) const {
  std::ofstream(Path(name, ".cnf")) << Configuration(wanted);
  std::ofstream(folder + "/serial") << wanted.serial << "\n";

  Words request = Split("req -new -utf8 -nodes -config " + name + ".cnf -keyout " + name +
                        ".key -out " + name + ".csr -newkey " + KeyOptions(wanted.key) + " -subj");
  request.push_back(wanted.subject);
  OpenSsl(request);

  const std::string& by = wanted.issuer;
  OpenSsl(Split("ca -batch -notext -config " + name + ".cnf -in " + name + ".csr -out " + name +
                ".pem -startdate " + InDays(wanted.fromDays) + " -enddate " +
                InDays(wanted.toDays) + " -md " + wanted.digest + " -keyfile " + by + ".key" +
                (by == name ? " -selfsign" : " -cert " + by + ".pem")));
}

std::string Pki::Der(const std::string& name) const {
  OpenSsl({"x509", "-in", Cert(name), "-outform", "DER", "-out", "der"});
  return Content(folder + "/der");
}

std::string Pki::Chain(const std::string& file, const std::vector<std::string>& names) const {
  const std::string path = folder + "/" + file;
  std::ofstream all(path);
  for (const std::string& name : names) all << Content(Cert(name));
  return path;
}

std::string Pki::Pkcs12(const std::vector<std::string>& names, const std::string& password) const {
  const std::string path = Path(names.at(0), ".p12");
  OpenSsl({"pkcs12", "-export", "-inkey", Key(names[0]), "-in", Chain(names[0] + ".p12.pem", names),
           "-out", path, "-passout", "pass:" + password});
  return path;
}

std::string Pki::Trust(const std::vector<std::string>& names) const {
  const std::string path = folder + "/trust-" + Joined(names);
  fs::create_directory(path);
  for (const std::string& name : names)
    fs::copy_file(Cert(name), path + "/" + name + ".pem", fs::copy_options::overwrite_existing);
  return path;
}

void Pki::OpenSsl(const std::vector<std::string>& words) const {
  std::vector<char*> argv{const_cast<char*>("openssl")};
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  const std::string said = folder + "/said";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, said.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  pid_t pid = -1;
  const int failed = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) throw std::runtime_error("cannot run openssl");

  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
  if (status != 0) throw std::runtime_error("openssl " + words.at(0) + ": " + Content(said));
}

Options Pki::As(const std::string& name, const Options& more) const {
  Options options = more;
  options.emplace_back("PublicCertFile", Args({"DER", Cert(name), 0}));
  options.emplace_back("PrivateKeyFile", Args({"DER", Key(name), 0}));
  return options;
}

Options Pki::Anonymous(const Options& more) {
  Options options = more;
  options.emplace_back("PublicCertFile", Args({"DER", "", 0}));
  return options;
}

}  // namespace support
