// Directory services state: Windows domain membership and LDAP binding.
//
// ROOT/etc/tavo/domain: present when the appliance is joined to a Windows
//   domain; its first line is the domain's name.
// ROOT/etc/tavo/domain_group: the domain's groups, group(5) lines whose names
//   are "DOMAIN\name".
// ROOT/etc/tavo/ldap: present when bound to an LDAP directory; its first line
//   is the directory's domain.
// ROOT/usr/tavo/etc/private/ldap_group: the directory's groups, group(5) lines
//   whose names are "name@domain".
//
// Thread-safety: may be called from any thread.
#ifndef TAVO_DIRECTORY_H_
#define TAVO_DIRECTORY_H_

extern "C" {

// 1 when joined to a Windows domain, 0 otherwise.
int TAVOWinsIsJoined(void);
// 1 when bound to an LDAP directory, 0 otherwise. `flag` is reserved (0).
int TAVOLDAPIsBinded(int flag);

}  // extern "C"

#endif  // TAVO_DIRECTORY_H_
