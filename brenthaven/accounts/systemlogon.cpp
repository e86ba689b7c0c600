#include "brenthaven/accounts/systemlogon.h"

#include <security/pam_appl.h>
#include <string.h>

#include <cstdlib>

#include "brenthaven/platform/sharedlibrary.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kService[] = "brenthaven";
constexpr char kDirectoryVariable[] = "PamDirectory";

struct Library {
  SSharedLibrary file{"libpam.so.0"};
  decltype(pam_start_confdir) *start = file.Find<decltype(pam_start_confdir)>("pam_start_confdir");
  decltype(pam_authenticate) *authenticate = file.Find<decltype(pam_authenticate)>("pam_authenticate");
  decltype(pam_acct_mgmt) *checkAccount = file.Find<decltype(pam_acct_mgmt)>("pam_acct_mgmt");
  decltype(pam_end) *end = file.Find<decltype(pam_end)>("pam_end");

  // Null when the library, or one of the functions, is not there.
  static Library const *Get() {
    static Library const library;
    bool const complete = library.start != nullptr && library.authenticate != nullptr &&
                          library.checkAccount != nullptr && library.end != nullptr;
    return complete ? &library : nullptr;
  }
};

struct Secret {
  SString password;
  bool given = false;
};

// The answer to one message of the service: true, and the answer or none, unless it asks for what we don't have.
bool AnswerOne(pam_message const &message, Secret &secret, pam_response &answer) {
  switch (message.msg_style) {
    case PAM_TEXT_INFO:
    case PAM_ERROR_MSG:
      return true;
    case PAM_PROMPT_ECHO_OFF:
      if (secret.given) return false;
      secret.given = true;
      answer.resp = strdup(secret.password);
      return answer.resp != nullptr;
    default:
      return false;
  }
}

// The conversation that a service has with the user: it asks, and owns the answers.
int Converse(int count, pam_message const **messages, pam_response **answers, void *data) {
  if (count <= 0 || count > PAM_MAX_NUM_MSG) return PAM_CONV_ERR;
  auto *const made = static_cast<pam_response *>(calloc(static_cast<size_t>(count), sizeof(pam_response)));
  if (made == nullptr) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    if (AnswerOne(*messages[i], *static_cast<Secret *>(data), made[i])) continue;
    for (int j = 0; j < i; ++j) {
      if (made[j].resp != nullptr) explicit_bzero(made[j].resp, strlen(made[j].resp));
      free(made[j].resp);
    }
    free(made);
    return PAM_CONV_ERR;
  }
  *answers = made;
  return PAM_SUCCESS;
}

// The user as the service is to see it.
SString UserOf(SString const &logonId) {
  constexpr char kThisMachine[] = ".\\";
  return logonId.HasPrefix(kThisMachine) ? logonId.Segment(2, logonId.Length() - 2) : logonId;
}

bool CanBeAsked(SString const &text) { return text.Length() > 0 && text.Index('\0') < 0; }

}  // namespace

bool SystemLogon(SString const &logonId, SString const &password) {
  SString const user = UserOf(logonId);
  if (!CanBeAsked(user) || !CanBeAsked(password) || password.Length() >= PAM_MAX_RESP_SIZE) return false;
  Library const *const pam = Library::Get();
  if (pam == nullptr) return false;
  Secret secret{password};
  pam_conv const conversation{Converse, &secret};
  SString const directory = GetEnv(kDirectoryVariable);
  pam_handle_t *handle = nullptr;
  int result = pam->start(kService, user, &conversation,
                          directory.Length() > 0 ? static_cast<char const *>(directory) : nullptr, &handle);
  if (result != PAM_SUCCESS) return false;
  constexpr int kFlags = PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK;
  result = pam->authenticate(handle, kFlags);
  if (result == PAM_SUCCESS) result = pam->checkAccount(handle, kFlags);
  (void)pam->end(handle, result);  // nothing is left to do about a failure
  return result == PAM_SUCCESS;
}
