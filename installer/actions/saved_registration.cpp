#include "saved_registration.h"

#include "client.h"
#include "registry.h"

namespace installer {
namespace {

// The value of kSavedKey that is written when everything else has been saved.
constexpr wchar_t kComplete[] = L"Complete";

struct Tree {
  std::wstring path;
  REGSAM view;
  std::wstring saved;
};

REGSAM OwnView() {
  return Views().front().access;
}

std::wstring SavedAs(const std::wstring& name) {
  return std::wstring(kSavedKey) + L"\\" + name;
}

std::vector<Tree> Trees() {
  std::vector<Tree> trees = {{kProviderKey, 0, SavedAs(L"Provider")},
                             {kClientKey, OwnView(), SavedAs(L"Client")},
                             {kChosenKey, OwnView(), SavedAs(L"Chosen")}};
  for (const View& view : Views())
    trees.push_back({kSettingsKey, view.access, SavedAs(std::wstring(L"Settings ") + view.name)});
  return trees;
}

bool IsSaved() {
  const std::optional<Key> saved = Key::Open(kSavedKey, OwnView());
  return saved && FindValue(*saved, kComplete);
}

// The mark first: what is left when the rest fails is no saved state.
void ForgetTrees() {
  if (const std::optional<Key> saved = Key::Open(kSavedKey, OwnView())) Remove(*saved, kComplete);
  RemoveTree(kSavedKey, OwnView());
}

}  // namespace

void SaveRegistrationAndSettings() {
  ForgetTrees();
  const Key saved = Key::Create(kSavedKey, OwnView());
  for (const Tree& tree : Trees())
    MirrorTree(tree.path, tree.view, tree.saved, OwnView());
  Write(saved, NumberValue(kComplete, 1));
}

void RestoreRegistrationAndSettings(const Journal& journal, const std::wstring& client) {
  if (!IsSaved()) {
    journal.Note(L"Registration and settings were not saved completely, and nothing is restored.");
    return;
  }
  // keldactl knows how to enter the provider into Windows' list and how to take it out; the values follow.
  const bool was_registered = Key::Open(SavedAs(L"Provider"), OwnView()).has_value();
  RunClient(journal, client, was_registered ? L"register" : L"unregister");
  for (const Tree& tree : Trees())
    MirrorTree(tree.saved, OwnView(), tree.path, tree.view);
}

void ForgetSaved() {
  ForgetTrees();
  RemoveIfEmpty(kChosenKey, OwnView());
  RemoveIfEmpty(kSetupKey, OwnView());
  for (const View& view : Views())
    RemoveIfEmpty(kVendorKey, view.access);
}

}  // namespace installer
