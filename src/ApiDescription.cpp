// The description of every method of the module's table: its parameters as a
// JSON Schema object with an example, its answer's "data" and its error codes.
// The server reads it through GetAPIDescription to build its OpenAPI document;
// the parameter types here must agree with what ApiTable.cpp's checks accept
// (a test calls each method with the examples, and with values of other types).
//
// Only GetAPIDescription is visible outside the module (besides the table).

namespace {

// Reused schema fragments are spelled out in full: the text is the contract.
const char kDescription[] = R"json({
  "format": 1,
  "methods": [
{
  "api": "TAVO.Core.Group", "version": 1, "method": "list",
  "summary": "Lists local, Windows-domain or LDAP groups with paging and a name filter.",
  "params": {
    "type": "object",
    "properties": {
      "offset": {"type": "integer", "description": "first group to answer, from 0"},
      "limit": {"type": "integer", "description": "groups to answer; -1 for all"},
      "type": {"type": "string", "enum": ["local", "domain", "ldap"], "default": "local"},
      "domain_name": {"type": "string", "description": "the domain of type \"domain\""},
      "user": {"type": "string", "description": "mark is_member for this local user"},
      "substr": {"type": "string", "description": "name contains this, ignoring case"},
      "name_only": {"type": "boolean", "default": true}
    },
    "example": {"offset": 0, "limit": 5, "type": "local", "substr": "", "user": "admin", "name_only": false}
  },
  "answer": {
    "type": "object",
    "properties": {
      "groups": {"type": "array", "items": {"type": "object", "properties": {
        "name": {"type": "string"}, "description": {"type": "string"},
        "gid": {"type": "integer"}, "is_member": {"type": "boolean"}}, "required": ["name"]}},
      "offset": {"type": "integer"},
      "total": {"type": "integer", "description": "all matching groups"}
    },
    "required": ["groups", "offset", "total"]
  },
  "errors": {"3201": "bad paging, type or user filter", "3214": "no LDAP directory is bound",
             "3215": "not joined to a domain", "3203": "the directory's group list is not available now",
             "3202": "busy", "3299": "listing failed"}
},
{
  "api": "TAVO.Core.Group", "version": 1, "method": "get",
  "summary": "Answers the name, GID and description of groups given by name or GID.",
  "params": {
    "type": "object",
    "properties": {
      "name": {"oneOf": [{"type": "string"}, {"type": "array", "items": {"type": "string"}}]},
      "gid": {"oneOf": [{"type": "integer", "minimum": 0},
                        {"type": "array", "items": {"type": "integer", "minimum": 0}}]}
    },
    "example": {"name": ["administrators", "users"], "gid": 100}
  },
  "answer": {
    "type": "object",
    "properties": {
      "groups": {"type": "array", "items": {"type": "object", "properties": {
        "name": {"type": "string"}, "gid": {"type": "integer"}, "description": {"type": "string"}}}},
      "errors": {"type": "array", "description": "the names and GIDs not found",
                 "items": {"type": "object", "properties": {
                   "name": {"type": "string"}, "gid": {"type": "integer"}, "code": {"type": "integer"}}}}
    },
    "required": ["groups"]
  },
  "errors": {"3201": "a parameter of the wrong type", "3202": "busy"}
},
{
  "api": "TAVO.Core.Group", "version": 1, "method": "set",
  "summary": "Renames a group or changes its description.",
  "params": {
    "type": "object",
    "properties": {
      "name": {"type": "string", "description": "the group, by name"},
      "gid": {"type": "integer", "minimum": 0, "description": "the group, by GID"},
      "new_name": {"type": "string"},
      "description": {"type": "string"}
    },
    "oneOf": [{"required": ["name"]}, {"required": ["gid"]}],
    "example": {"name": "no-such-group", "description": "Changed"}
  },
  "answer": {
    "type": "object",
    "properties": {"name": {"type": "string"}, "gid": {"type": "integer"}},
    "required": ["name", "gid"]
  },
  "errors": {"3201": "neither or both of name and gid", "3207": "reserved name or a built-in group",
             "3206": "the new name is taken", "3208": "no such group",
             "3211": "the name or description may not be stored", "3202": "busy"}
},
{
  "api": "TAVO.Core.Group", "version": 1, "method": "delete",
  "summary": "Deletes groups given by name or GID; unknown ones are skipped.",
  "params": {
    "type": "object",
    "properties": {
      "name": {"oneOf": [{"type": "string"}, {"type": "array", "items": {"type": "string"}}]},
      "gid": {"oneOf": [{"type": "integer", "minimum": 0},
                        {"type": "array", "items": {"type": "integer", "minimum": 0}}]}
    },
    "example": {"name": ["no-such-group"]}
  },
  "answer": {
    "type": "object",
    "properties": {
      "errors": {"type": "array", "description": "listed groups that still exist (code 3212)",
                 "items": {"type": "object", "properties": {
                   "name": {"type": "string"}, "code": {"type": "integer"}}}}
    }
  },
  "errors": {"3201": "a parameter of the wrong type", "3202": "busy"}
},
{
  "api": "TAVO.Core.Group", "version": 1, "method": "create",
  "summary": "Creates a local group with the next free GID.",
  "params": {
    "type": "object",
    "properties": {
      "name": {"type": "string"},
      "description": {"type": "string"}
    },
    "required": ["name"],
    "example": {"name": "projects", "description": "Project shares"}
  },
  "answer": {
    "type": "object",
    "properties": {"name": {"type": "string"}, "gid": {"type": "integer"}},
    "required": ["name", "gid"]
  },
  "errors": {"3201": "no or an empty name", "3209": "too many groups or no free GID",
             "3206": "the name exists, is reserved or is not valid",
             "3211": "the description may not be stored", "3202": "busy"}
},
{
  "api": "TAVO.Core.Group", "version": 1, "method": "admin_check",
  "summary": "Tells whether groups, given by name or GID, make their members administrators.",
  "params": {
    "type": "object",
    "properties": {
      "name": {"oneOf": [{"type": "string"}, {"type": "array", "items": {"type": "string"}}]},
      "gid": {"oneOf": [{"type": "integer", "minimum": 0},
                        {"type": "array", "items": {"type": "integer", "minimum": 0}}]}
    },
    "example": {"name": "administrators"}
  },
  "answer": {
    "type": "object",
    "properties": {
      "groups": {"type": "array", "items": {"type": "object", "properties": {
        "name": {"type": "string"}, "is_admin": {"type": "boolean"}}}}
    },
    "required": ["groups"]
  },
  "errors": {"3201": "a parameter of the wrong type", "3202": "busy"}
},
{
  "api": "TAVO.Core.Group.Member", "version": 1, "method": "list",
  "summary": "Lists the members of a local group, or the local users who are not members.",
  "params": {
    "type": "object",
    "properties": {
      "group": {"type": "string"},
      "gid": {"type": "integer", "minimum": 0},
      "offset": {"type": "integer"},
      "limit": {"type": "integer", "description": "-1 for all"},
      "ingroup": {"type": "boolean", "default": true, "description": "false: the non-members"},
      "substr": {"type": "string"}
    },
    "oneOf": [{"required": ["group"]}, {"required": ["gid"]}],
    "example": {"group": "administrators", "offset": 0, "limit": 10, "ingroup": true, "substr": ""}
  },
  "answer": {
    "type": "object",
    "properties": {
      "users": {"type": "array", "items": {"type": "object", "properties": {
        "name": {"type": "string"}, "uid": {"type": "integer"}, "description": {"type": "string"}}}},
      "total": {"type": "integer"},
      "offset": {"type": "integer"}
    },
    "required": ["users", "total", "offset"]
  },
  "errors": {"3201": "bad paging, or neither or both of group and gid", "3213": "not a local group",
             "3208": "no such group", "3202": "busy"}
},
{
  "api": "TAVO.Core.Group.Member", "version": 1, "method": "add",
  "summary": "Adds users, given by name or UID, to a local group; unknown users are skipped.",
  "params": {
    "type": "object",
    "properties": {
      "group": {"type": "string"},
      "gid": {"type": "integer", "minimum": 0},
      "name": {"oneOf": [{"type": "string"}, {"type": "array", "items": {"type": "string"}}]},
      "uid": {"oneOf": [{"type": "integer", "minimum": 0},
                        {"type": "array", "items": {"type": "integer", "minimum": 0}}]}
    },
    "oneOf": [{"required": ["group"]}, {"required": ["gid"]}],
    "example": {"group": "no-such-group", "name": ["alice", "bob"]}
  },
  "answer": {"type": "object"},
  "errors": {"3201": "a parameter of the wrong type", "3216": "\"users\" holds everyone and cannot change",
             "3213": "not a local group", "3208": "no such group", "3202": "busy"}
},
{
  "api": "TAVO.Core.Group.Member", "version": 1, "method": "remove",
  "summary": "Removes users, given by name or UID, from a local group.",
  "params": {
    "type": "object",
    "properties": {
      "group": {"type": "string"},
      "gid": {"type": "integer", "minimum": 0},
      "name": {"oneOf": [{"type": "string"}, {"type": "array", "items": {"type": "string"}}]},
      "uid": {"oneOf": [{"type": "integer", "minimum": 0},
                        {"type": "array", "items": {"type": "integer", "minimum": 0}}]}
    },
    "oneOf": [{"required": ["group"]}, {"required": ["gid"]}],
    "example": {"group": "no-such-group", "uid": [1001]}
  },
  "answer": {"type": "object"},
  "errors": {"3201": "a parameter of the wrong type",
             "3210": "the removal would leave no valid administrator; nothing changed",
             "3216": "\"users\" holds everyone and cannot change", "3213": "not a local group",
             "3208": "no such group", "3202": "busy"}
},
{
  "api": "TAVO.Core.Group.Member", "version": 1, "method": "admin_check",
  "summary": "Tells whether users, given by name or UID, are administrators.",
  "params": {
    "type": "object",
    "properties": {
      "name": {"oneOf": [{"type": "string"}, {"type": "array", "items": {"type": "string"}}]},
      "uid": {"oneOf": [{"type": "integer", "minimum": 0},
                        {"type": "array", "items": {"type": "integer", "minimum": 0}}]}
    },
    "example": {"name": "admin"}
  },
  "answer": {
    "type": "object",
    "properties": {
      "users": {"type": "array", "items": {"type": "object", "properties": {
        "name": {"type": "string"}, "is_admin": {"type": "boolean"}}}}
    },
    "required": ["users"]
  },
  "errors": {"3201": "a parameter of the wrong type", "3202": "busy"}
}
  ]
})json";

}  // namespace

extern "C" __attribute__((visibility("default"))) const char* GetAPIDescription(void) {
  return kDescription;
}
