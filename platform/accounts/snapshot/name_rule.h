// The rule that keeps a new group name from passing for another one.
//
// A new or renamed group name is first put in Unicode normalisation form C
// (NfcName), so that one spelling is stored for what looks like one name.
// It is refused (HasInvisible) when it holds a character that shows nothing
// or changes how the text around it is shown: default-ignorable code points
// (zero-width spaces and joiners, the soft hyphen, variation selectors, ...),
// bidirectional controls, any other format character (general category Cf),
// and unassigned, private-use or surrogate code points. And it is refused
// when its confusable skeleton (Unicode TS #39: Skeleton), taken of the name
// as written or of its case-folded form (NameSkeleton), equals that of a
// group that exists, of a built-in group or of a system group, taken the same
// way, unless both fold to the same name (the name rule of the store decides
// that case): "aIice" passes for "alice" as written, "ΑDMIN" for "admin"
// once folded. Names already in the files are never checked.
//
// Thread-safety: every function may be called from any thread.
// Errors: none. Text that is not valid UTF-8 is returned unchanged by
// NfcName and has an empty skeleton.
#ifndef TAVO_PLATFORM_NAME_RULE_H_
#define TAVO_PLATFORM_NAME_RULE_H_

#include <string>
#include <string_view>

namespace tavo {
namespace acct {

std::string NfcName(const std::string& name);
bool HasInvisible(const std::string& name);
// The TS #39 skeleton of `text`, as UTF-8 ("" when none can be made).
std::string Skeleton(const std::string& text);
// Skeleton(FoldCase(name)).
std::string NameSkeleton(const std::string& name);
// Whether NameSkeleton(text), when `folded`, else Skeleton(text), is
// `skeleton`; for ASCII text without building it, stopping at the first
// difference (a new name is compared with every group in the files).
bool SkeletonIs(std::string_view text, const std::string& skeleton, bool folded);

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_NAME_RULE_H_
