"""python-dbusmock template of the account service, for tests of store clients without a daemon.

    python3 -m dbusmock --template tallowd.py [--parameters JSON]

The mock has every interface, method and signature of the service's introspection files, which are
read when it starts: those installed beside this template (share/dbus-1/interfaces), or of the
repository. Methods answer out of what the parameters give, in the types of the wire protocol:

    bag          dictionary         the caller's bag: keys and values
    bagIsValid   boolean (true)
    trusted      array of strings   beginnings of the URLs that the bag trusts
    headers      dictionary         request headers for every URL, by name
    storeFront   string             what setStoreFrontID sets
    accounts     array of records   dsid, identifier, ...; addAccount adds to it
    primary      number             the DSID of who is signed in; signOut clears it
    token        string             of who is signed in
    answers      dictionary         by method: what it returns instead, one value or an array of them

Every other method returns nothing, false, 0 or the empty value of its types. As of every mock, calls
are noted (GetCalls), methods can be replaced (AddMethod), and signals sent (EmitSignal).
"""

import os
import xml.etree.ElementTree as ElementTree

import dbus

BUS_NAME = "com.vantor.tallowd"
MAIN_OBJ = "/com/vantor/tallowd"
MAIN_IFACE = "com.vantor.HSAccountService"
SYSTEM_BUS = False

SERVED = (
    MAIN_IFACE,
    "com.vantor.HSServiceRemoteObject",
    "com.vantor.HSDialogService",
    "com.vantor.tallowd.Status",
)



class State:
    """What the mock holds; a method of the service's that does something is one of this class."""

    def __init__(self, parameters):
        self.bag = dbus.Dictionary(parameters.get("bag", {}), signature="sv")
        self.bag_is_valid = bool(parameters.get("bagIsValid", True))
        self.trusted = parameters.get("trusted", [])
        self.headers = dbus.Dictionary(parameters.get("headers", {}), signature="ss")
        self.store_front = listed(parameters.get("storeFront"), "s")
        self.known = [dbus.Dictionary(record, signature="sv") for record in parameters.get("accounts", [])]
        self.primary = parameters.get("primary", 0)
        self.token = listed(parameters.get("token"), "s")

    def valueForURLBagKey(self, key):
        return listed(self.bag.get(key), "v")

    def dictionary(self):
        return [self.bag]

    def isValid(self):
        return self.bag_is_valid

    def loadURLBagWithType(self, _bag_type):
        return self.bag_is_valid, self.bag_is_valid, []

    def urlIsTrustedByURLBag(self, url):
        return any(url.startswith(beginning) for beginning in self.trusted)

    def httpHeadersForURL(self, _url, _dsid, _with_identity):
        return self.headers

    def deleteAllCookies(self):
        self.headers.pop("Cookie", None)

    def storeFront(self):
        return self.store_front

    def setStoreFrontID(self, store_front):
        self.store_front = store_front

    def accounts(self):
        return self.known

    def addAccount(self, account):
        self.known = [each for each in self.known if each["dsid"] != account["dsid"]] + [account]

    def accountWithDSID(self, dsid):
        return [each for each in self.known if each["dsid"] == dsid][:1]

    def accountWithVantorID(self, name):
        return [each for each in self.known if each.get("identifier") == name][:1]

    def primaryAccount(self):
        return self.accountWithDSID(self.primary)

    def strongTokenForAccount(self, _account):
        return self.token if self.primary else []

    def authIsExpired(self):
        return not (self.primary and self.token)

    def signOut(self):
        self.primary = 0

    def Describe(self):
        return '{"version": "mock", "instance": "agent"}'


def listed(value, signature):
    """What may be nil: none, or one."""
    return dbus.Array([] if value is None else [value], signature=signature)


def interface_files():
    """The folder of introspection files: installed, or the repository's."""
    here = os.path.dirname(os.path.realpath(__file__))
    for folder in ("../../dbus-1/interfaces", "../../interfaces"):
        path = os.path.join(here, folder)
        if os.path.isdir(path):
            return path
    raise FileNotFoundError("the introspection files of the service (share/dbus-1/interfaces)")


def empty(signature):
    """The empty value of one complete type, as Python text."""
    if signature[0] == "a":
        return "{}" if signature[1:2] == "{" else "[]"
    if signature[0] == "(":
        return "(" + "".join(empty(part) + "," for part in complete_types(signature[1:-1])) + ")"
    return {"b": "False", "s": "''", "d": "0.0"}.get(signature[0], "0")


def complete_types(signature):
    return [str(part) for part in dbus.Signature(signature)]


def code_of(method, out_signature, answers):
    """What AddMethod runs for a call."""
    if method in answers:
        return f"ret = self.tallow_answers[{method!r}]"
    values = [empty(part) for part in complete_types(out_signature)]
    if hasattr(State, method):
        return ("ret = " if values else "") + f"self.tallow.{method}(*args)"
    if not values:
        return ""
    return "ret = " + (values[0] if len(values) == 1 else "(" + ", ".join(values) + ")")


def methods_of(interface, answers):
    found = []
    for method in interface.iter("method"):
        ways = {"in": "", "out": ""}
        for argument in method.iter("arg"):
            ways[argument.get("direction", "in")] += argument.attrib["type"]
        name = method.attrib["name"]
        found.append((name, ways["in"], ways["out"], code_of(name, ways["out"], answers)))
    return found


def load(mock, parameters):
    answers = parameters.get("answers", {})
    mock.tallow = State(parameters)
    mock.tallow_answers = answers
    for name in sorted(os.listdir(interface_files())):
        tree = ElementTree.parse(os.path.join(interface_files(), name))
        for interface in tree.iter("interface"):
            if interface.attrib["name"] in SERVED:
                mock.AddMethods(interface.attrib["name"], methods_of(interface, answers))
