#!/usr/bin/env python3
"""Writes examples/site.json: a company with a data centre, an office and two branches, 50 nodes.

    examples/make_site.py > examples/site.json

The form of the file is told at the head of tools/tarmik/load.cpp: an object that others point at has a
name ("as") and stands above them, and "group" tells which of the groups of a node a child belongs to.
"""
import json

NET, AGENT, SNMP = 0, 1, 2  # groups of a node


def obj(cls, properties=None, children=None, name=None, group=None):
    out = {"class": cls}
    if name:
        out["as"] = name
    if group is not None:
        out["group"] = group
    if properties:
        out["properties"] = properties
    if children:
        out["children"] = children
    return out


def ref(name):
    return {"object": name}


# ---- people, alerts, plans ------------------------------------------------------------------------

def path(name, method, destination, **more):
    return obj("AlertPath", {"method": method, "destination": destination, **more}, name=name)


def users():
    return [
        obj("User", {"name": "maria", "realName": "Maria Keller", "capSetCap": True, "capUsers": True,
                     "capDomains": True, "capNodes": True, "capChecks": True, "capReports": True,
                     "capAck": True, "capAction": True},
            [path("maria-mail", "HTML e-mail", "maria@company.example", graphNo=2, forOks=True),
             path("maria-sms", "Direct SMS", "+41000000001", label="at night", forWarnings=False,
                  initialDelay=300)],
            name="maria"),
        obj("User", {"name": "jon", "realName": "Jon Baker", "capNodes": True, "capChecks": True,
                     "capAck": True},
            [path("jon-mail", "Plaintext e-mail", "jon@company.example", minDelay=3600),
             path("jon-sms", "SMS via. e-mail gateway", "jon@sms.company.example",
                  smsSubject="Alert")],
            name="jon"),
        obj("User", {"name": "desk", "realName": "Service desk", "capAck": True},
            [path("desk-mail", "HTML e-mail", "desk@company.example", logCheckLines=50)], name="desk"),
    ]


def alert_groups():
    def group(name, *paths):
        return obj("AlertGroup", {"name": name, "alertPathList": [ref(p) for p in paths]}, name=name)
    return [group("network", "maria-mail", "maria-sms", "desk-mail"),
            group("servers", "jon-mail", "jon-sms", "desk-mail"),
            group("office-hours", "desk-mail")]


def weekly_plan(name, description, windows):
    """windows: day -> [(seconds after midnight, seconds)]"""
    days = [obj("DayPlanner", {"name": day},
                [obj("Event", {"startTime": start, "duration": length}) for start, length in events])
            for day, events in windows.items()]
    return obj("Plan", {"name": name, "description": description},
               [obj("WeekPlanner", {"name": "week"}, days)])


# ---- a small MIB ----------------------------------------------------------------------------------

CONTINUOUS, ENUMERATED, UPTIME = 10, 12, 14  # SNMP types, by the kind of check they give


def mib():
    def entry(name, oid, kind=CONTINUOUS, texts=(), **more):
        return obj("MibObject", {"name": name, "snmpId": oid, "snmpType": kind, **more},
                   [obj("MibTypeEnum", {"value": v, "text": t}) for v, t in texts], name=name)
    states = ((1, "up"), (2, "down"), (3, "testing"), (4, "unknown"), (5, "dormant"),
              (6, "notPresent"), (7, "lowerLayerDown"))
    table, row = "1.3.6.1.2.1.2.2", "1.3.6.1.2.1.2.2.1"
    column = {"containingTable": table}
    objects = [
        entry("system", "1.3.6.1.2.1.1", description="The device itself."),
        entry("sysUpTime", "1.3.6.1.2.1.1.3", UPTIME, description="Time since the last start."),
        entry("ifTable", table, description="A row for each interface."),
        entry("ifSpeed", row + ".5", **column),
        entry("ifOperStatus", row + ".8", ENUMERATED, states, **column),
        entry("ifInOctets", row + ".10", description="Octets received.", **column),
        entry("ifInErrors", row + ".14", **column),
        entry("ifOutOctets", row + ".16", description="Octets sent.", **column),
    ]
    module = obj("MibModule", {"name": "IF-MIB"},
                 [obj("MibModuleObject", {"name": o["properties"]["name"],
                                          "snmpId": o["properties"]["snmpId"]}) for o in objects]
                 + [obj("MibModuleType", {"name": "InterfaceStatus", "snmpType": ENUMERATED},
                        [obj("MibTypeEnum", {"value": v, "text": t}) for v, t in states])])
    return objects + [module]


# ---- node classes: what the checks of like nodes have in common -----------------------------------

def node_classes():
    def config(tag, **values):
        return obj("NodeClassCheckConfig", {"tag": tag, "forAll": False, "frequency": 60, **values},
                   name=f"config:{tag}")

    def group(tag, *children, for_all=False):
        return obj("NodeClassCheckGroupConfig", {"tag": tag, "forAll": for_all}, list(children))

    def all_of(kind, *children):
        """What stands where each node has its group of this kind."""
        return group(kind, *children, for_all=True)

    def node_class(name, description, *groups):
        return obj("NodeClass", {"name": name, "description": description},
                   [obj("NodeClassNodeConfig", {}, list(groups))], name=f"class:{name}")

    gauge_type = {"checkType": "Integer Continuous Check"}
    return [
        node_class("Reachable", "Whatever answers a ping.",
                   all_of("netchecks", config("ping", remoteType="ICMP", active=True, checkAttempts=3,
                                              warnIfAbove=200, alertIfAbove=1000))),
        node_class("Server", "A machine with our agent.", all_of(
            "agentchecks",
            group("cpu", config("load", warnIfAbove=80, alertIfAbove=95, **gauge_type),
                  config("iowait", warnIfAbove=40, **gauge_type)),
            group("mem", config("free", warnIfBelow=512 << 20, alertIfBelow=128 << 20, **gauge_type),
                  config("swap", warnIfAbove=50, **gauge_type)),
            group("disk", config("used", warnIfAbove=85, alertIfAbove=95, forecastEnabled=True,
                                 warnOnForecast=True, **gauge_type)))),
    ]


# ---- checks ---------------------------------------------------------------------------------------

def net(remote_type, remote, name=None, children=None, **more):
    return obj("Check", {"remoteType": remote_type, "remoteName": remote, **more}, children, name=name,
               group=NET)


def gauge(agent_id, label, unit, name=None):
    """Its limits come from the configuration in the class."""
    return obj("Check", {"agentId": agent_id, "name": label, "checkType": "Integer Continuous Check",
                         "active": True, "unit": unit, "inherits": ref(f"config:{agent_id}")},
               name=name)


def states(agent_id, label, check_type="Boolean Check"):
    return obj("Check", {"agentId": agent_id, "name": label, "checkType": check_type, "active": True,
                         "stateAction1": "Alert"})


def agent_group(agent_id, name, children, top=True, **more):
    return obj("CheckGroup", {"agentId": agent_id, "name": name, **more}, children,
               group=AGENT if top else None)


def log_group():
    def rule(order, regex, status, decision):
        return obj("LogCheckRule", {"order": order, "logCheckRegex": regex, "logCheckStatus": status,
                                    "logCheckLogDecision": decision})
    check = obj("Check", {"agentId": "messages", "name": "/var/log/messages", "active": True,
                          "checkType": "Advanced Log Check", "silenceAlert": 600},
                [obj("LogCheckRuleComment", {"order": 1, "text": "What the kernel says of its disks"}),
                 rule(2, "'I/O error'", 2, 0), rule(3, "'link is (down|up)'", 1, 0)])
    return agent_group("log", "Logs", [agent_group("messages", "System log", [check], top=False)])


def agent_tree(node, disks=("/", "/var"), processes=(), raid=False, log=False):
    groups = [
        agent_group("cpu", "Processor", [
            gauge("load", "Load", "%"), gauge("iowait", "Waiting for disks", "%")]),
        agent_group("mem", "Memory", [
            gauge("free", "Free memory", "B"), gauge("swap", "Swap in use", "%")]),
        agent_group("disk", "Disks", [
            agent_group(disk, disk, [
                gauge("used", "Used", "%", name=f"{node}:{disk}")], top=False)
            for disk in disks], isArray=True),
        agent_group("uptime", "Uptime", [
            obj("Check", {"agentId": "uptime", "name": "Uptime", "checkType": "Uptime Check",
                          "active": True, "unit": "s", "automaticDowntime": 600})]),
    ]
    if log:
        groups.append(log_group())
    if processes:
        groups.append(agent_group("proc", "Processes", [
            states(process, process, "Process Presence Check") for process in processes]))
    if raid:
        groups.append(agent_group("raid", "RAID", [states("md0", "Array md0", "Raid Check")]))
    return groups


def interface(index, name, manual_alert=None):
    checks = [obj("Check", {"mibObject": ref("ifOperStatus"), "label": f"{name} state", "active": True,
                            "stateAction2": "Alert", "stateAction7": "Warn"}),
              obj("Check", {"mibObject": ref("ifInOctets"), "label": f"{name} in", "active": True}),
              obj("Check", {"mibObject": ref("ifOutOctets"), "label": f"{name} out", "active": True}),
              obj("Check", {"mibObject": ref("ifInErrors"), "label": f"{name} errors", "active": True,
                            "warnIfAbove": 10, "alertIfAbove": 100})]
    return obj("CheckGroup", {"mibObject": ref("ifTable"), "snmpInstanceId": str(index), "tag": name},
               checks)


def snmp_tree(ports):
    return [obj("CheckGroup", {"mibObject": ref("system"), "snmpInstanceId": "0", "tag": "system"},
                [obj("Check", {"mibObject": ref("sysUpTime"), "label": "Uptime", "active": True})],
                group=SNMP),
            obj("CheckGroup", {"mibObject": ref("ifTable"), "snmpInstanceId": "", "tag": ""},
                [interface(i, f"port {i}") for i in range(1, ports + 1)], group=SNMP)]


# ---- nodes ----------------------------------------------------------------------------------------

def node(name, label, checks=(), gateway=None, comment=None, classes=("Reachable",), **more):
    properties = {"name": name, "label": label, "nodeClasses": [ref(f"class:{c}") for c in classes],
                  **more}
    if comment:
        properties["comment"] = comment
    ping = {"dependsOn": [ref(f"{gateway}-ping")]} if gateway else {}
    return obj("Node", properties,
               [net("ICMP", name + ".company.example", name=f"{name}-ping", inherits=ref("config:ping"),
                    **ping), *checks], name=name)


SERVER = ("Reachable", "Server")


def web(name, label, gateway, path="/status"):
    host = name + ".company.example"
    month = obj("CheckAccumulation", {"period": "1 month", "rolling": True, "alertIfAbove": 5000})
    return node(name, label, gateway=gateway, comment="Behind the load balancer.",
                classes=SERVER, infoUrl="https://portal.example/status", alertGroup=ref("servers"),
                checks=[net("HTTP", host, name=f"{name}-http", httpUrl=path, useSsl=True, port=443,
                            warnIfAbove=800, alertIfAbove=3000, children=[month]),
                        *agent_tree(name, processes=("httpd", "app"))])


def answers_together():
    """One graph with the answers of the portal's four servers."""
    series = [obj("Series", {"name": f"web-{i}"}, [obj("CheckExpression", {"check": ref(f"web-{i}-http")})])
              for i in range(1, 5)]
    return obj("MultiCheck", {"name": "Answers of the portal", "active": True}, series, group=NET)


def switch(name, label, ports, gateway=None):
    return node(name, label, gateway=gateway, alertGroup=ref("network"), snmpCommunity="monitoring",
                snmpVersion="SNMPv2", checks=snmp_tree(ports))


def server(name, label, gateway, comment=None, checks=(), **tree):
    return node(name, label, gateway=gateway, comment=comment, classes=SERVER,
                alertGroup=ref("servers"),
                checks=[*checks, *agent_tree(name, **tree)])


def data_centre():
    gw = "gw-1"
    mail = [net("SMTP", "mail-1.company.example"), net("IMAP", "mail-1.company.example", useSsl=True,
                                                       port=993)]
    nodes = [
        node("gw-1", "Border router", alertGroup=ref("network"), comment="Two uplinks.",
             snmpVersion="SNMPv2", checks=snmp_tree(4)),
        node("gw-2", "Border router, standby", alertGroup=ref("network"),
             comment="Takes over from gw-1.", snmpVersion="SNMPv2", checks=snmp_tree(4)),
        switch("core-1", "Core switch, row A", 12, gw),
        switch("core-2", "Core switch, row B", 12, gw),
        *[web(f"web-{i}", "Customer portal", gw) for i in range(1, 5)],
        node("portal", "Address of the portal", gateway=gw, checks=[answers_together()]),
        *[server(f"app-{i}", "Order system", gw, processes=("app", "queue")) for i in range(1, 5)],
        server("db-1", "Orders database, primary", gw, "Replicates to db-2.",
               disks=("/", "/data", "/wal"), processes=("database",), raid=True),
        server("db-2", "Orders database, replica", gw, "Read only.", disks=("/", "/data", "/wal"),
               processes=("database",), raid=True),
        server("mail-1", "Mail relay", gw, "In and out, with spam filter.", mail,
               disks=("/", "/var/spool")),
        server("dns-1", "Name and time server", gw, checks=[net("NTP", "dns-1.company.example"),
                                                                net("DNS", "dns-1.company.example",
                                                       dnsHost="www.company.example")]),
        server("dns-2", "Name server, second", gw, checks=[net("DNS", "dns-2.company.example",
                                                               dnsHost="www.company.example")]),
        server("backup-1", "Backup server", gw, "Runs from 22:00 to 04:00.", disks=("/", "/backup"),
               raid=True),
        server("log-1", "Log server", gw, disks=("/", "/logs"), log=True),
    ]
    night = weekly_plan("backup", "The nightly backup keeps the disks busy.",
                        {day: [(22 * 3600, 2 * 3600)] for day in ("monday", "wednesday", "friday")})
    return obj("Domain", {"name": "data-centre", "label": "Data centre", "alertGroup": ref("servers"),
                          "comment": "Two rows, own power."}, nodes + [night])


def office():
    gw = "of-gw"
    return obj("Domain", {"name": "office", "label": "Head office",
                          "comment": "Third floor, eighty people."}, [
        node("of-gw", "Office router", alertGroup=ref("network"), checks=snmp_tree(2)),
        *[switch(f"of-sw-{i}", f"Floor switch {i}", 8, gw) for i in range(1, 4)],
        *[node(f"of-ap-{i}", f"Access point {i}", gateway=gw) for i in range(1, 7)],
        *[node(f"of-print-{i}", f"Printer {i}", gateway=gw, alertGroup=ref("office-hours"),
               checks=[net("Generic TCP", f"of-print-{i}.company.example", port=9100)])
          for i in range(1, 4)],
        server("of-files", "File server", gw, disks=("/", "/shares"), raid=True),
        weekly_plan("cleaning", "The cleaners unplug things.", {"friday": [(19 * 3600, 3600)]}),
    ])


def branch(prefix, label):
    gw = f"{prefix}-gw"
    return obj("Domain", {"name": prefix, "label": label, "comment": "Twelve people."}, [
        node(gw, "Branch router", alertGroup=ref("network"), comment="One uplink, LTE as a spare.",
             checks=snmp_tree(2)),
        switch(f"{prefix}-switch", "Branch switch, PoE for the phones", 4, gw),
        server(f"{prefix}-files", "File server", gw),
        *[node(f"{prefix}-print-{i}", f"Printer {i}", gateway=gw, alertGroup=ref("office-hours"))
          for i in (1, 2)],
        node(f"{prefix}-ap", "Access point", gateway=gw),
        node(f"{prefix}-phone", "Telephone system", gateway=gw),
        node(f"{prefix}-ups", "Power supply", gateway=gw),
    ])


# ---- what people look at --------------------------------------------------------------------------

def views():
    def view(name, entries):
        return obj("View", {"name": name, "owner": ref("maria"), "public": True, "noOfCols": 2},
                   [obj("ViewEntry", {"entry": ref(e), "position": i, "label": label})
                    for i, (e, label) in enumerate(entries)])
    return [view("Portal", [(f"web-{i}-http", f"Answers of web-{i}") for i in range(1, 5)]
                 + [("db-1", "Database"), ("db-1:/data", "Space for orders")]),
            view("Uplinks", [("gw-1-ping", "Uplink"), ("gw-2-ping", "Standby"),
                             ("north-gw-ping", "Branch north"), ("south-gw-ping", "Branch south")]),
            obj("QuickLink", {"name": "Runbook", "url": "https://wiki.company.example/runbook"})]


def reports():
    def report(order, name, kind, selected, **more):
        return obj("Report", {"name": name, "type": kind, "owner": ref("maria"), "public": True, "progress": 0,
                              "order": order, **more},
                   [obj("ReportSelection", {"contains": [ref(s) for s in selected]})])
    return [report(1, "Availability of the portal", "System availability",
                   [f"web-{i}" for i in range(1, 5)], date="Last month",
                   hideSectionThreshold=0),
            report(2, "Incidents of the week", "Incidents", ["db-1", "db-2"], date="Last week")]


def site():
    company = obj("Domain", {"name": "company", "label": "The company", "alertGroup": ref("network")},
                  [*node_classes(), data_centre(), office(), branch("north", "Branch north"),
                   branch("south", "Branch south"), *views(), *reports()])
    return users() + alert_groups() + mib() + [company]


print(json.dumps({"parent": "0.1", "objects": site()}, indent=1))
