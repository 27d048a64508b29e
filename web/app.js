// The page: who is logged in, what is shown, and the line to the device.
import * as api from "./api.js";
import * as store from "./store.js";
import {showAccounts} from "./accounts.js";
import {
    exportDialog,
    importDialog,
    passwordDialog,
    reasonOf,
    resetDialog,
    toast,
} from "./dialogs.js";
import {h, icon} from "./dom.js";
import {createFrame} from "./frame.js";
import {loadTexts, t, titlesOf} from "./i18n.js";
import {connect, disconnect} from "./line.js";
import {LongList} from "./list.js";
import {createRow, updateRow} from "./row.js";
import {createHeading, itemsOf, namesFor, setOrder, wordsOf} from "./search.js";
import * as signIn from "./sign_in.js";
import {Tree} from "./tree.js";

const AGAIN = 2000; // ms, while the server does not answer

const view = {group: "", filter: "all", query: ""};
let account = null;
let page = null; // the elements of the page that change; null before the first log-in
const rows = new WeakMap(); // element in the list -> its row

// --- what is shown

function drawItem({key, group}) {
    if (group !== undefined) {
        return createHeading(group, () => chooseGroup(group));
    }
    const row = createRow(key, account.role !== "viewer", wordsOf(view.query));
    rows.set(row.element, row);
    return row.element;
}

function openGroups(open) {
    page.shell.classList.toggle("groups-open", open);
    page.groups.setAttribute("aria-expanded", String(open));
    if (open) {
        page.shell.querySelector("[role=treeitem][tabindex='0']")?.focus();
    }
}

function chooseGroup(path) {
    openGroups(false);
    page.search.value = view.query = "";
    if (location.hash === `#settings/${path}`) {
        route();
    } else {
        location.hash = `#settings/${path}`;
    }
}

function showFilter(name) {
    view.filter = name;
    chooseGroup("");
}

function groupInAddress() {
    try {
        return decodeURIComponent(/^#settings\/(.*)/.exec(location.hash)?.[1] ?? "");
    } catch {
        return ""; // somebody's typing
    }
}

function route() {
    const accounts = location.hash === "#accounts" && account.role === "administrator";
    page.accounts.hidden = !accounts;
    page.settings.hidden = accounts;
    if (accounts) {
        page.search.value = view.query = "";
        showAccounts(page.accounts, account.name);
    } else {
        view.group = groupInAddress();
        showSettings();
    }
}

// Draws the list anew. `fromTop` false keeps the place, when the same is shown as before.
function showSettings(fromTop = true) {
    const searching = view.query.trim() !== "";
    const shown = namesFor(view.group, view.filter, view.query);
    page.accounts.hidden = true;
    page.settings.hidden = false;
    page.tree.show(searching ? "" : view.group);
    page.list.clear();
    page.list.setItems(itemsOf(shown), fromTop);
    const titles = titlesOf(view.group);
    page.toolbar.title.textContent = searching
        ? t("search.title")
        : titles.join(" › ") || t("tree.all");
    page.toolbar.count.textContent = t("list.count", {n: shown.length});
    page.toolbar.filters.forEach(
        (label) => (label.firstChild.checked = label.firstChild.value === view.filter),
    );
    page.empty.hidden = shown.length > 0 || store.parameters.size === 0;
    page.empty.textContent = t(searching ? "search.empty" : `filter.empty.${view.filter}`);
    document.title = `${titles.at(-1) ?? t("tree.all")} – kelconf`;
}

function orderedNames() {
    page.tree.setNames([...store.parameters.keys()]);
    return page.tree.names();
}

store.onUpdate((names, whole) => {
    if (!page) {
        return;
    }
    if (whole) {
        setOrder(orderedNames());
        if (!page.settings.hidden) {
            showSettings(false);
        }
    }
    for (const name of names) {
        const row = rows.get(page.list.element(name));
        if (row) {
            updateRow(row);
        }
    }
    page.list.remeasure([...names]);
    updateBar();
});

function updateBar() {
    const {count, conflicts, broken} = store.pending();
    const {bar} = page;
    const words = [t("apply.count", {n: count})];
    if (conflicts.length > 0) {
        words.push(t("apply.conflicts", {n: conflicts.length}));
    }
    if (broken.length > 0) {
        words.push(t("apply.broken", {n: broken.length}));
    }
    const text = words.join(" · ");
    if (bar.words.textContent !== text) {
        bar.words.textContent = text;
    }
    bar.element.hidden = count === 0;
    const blocked = conflicts.length + broken.length > 0;
    bar.element.classList.toggle("blocked", blocked);
    bar.act.textContent = t(blocked ? "apply.show" : "apply.action");
    if (count !== page.unsaved) {
        page.unsaved = count;
        page.tree.setUnsaved([...store.edits.keys()]);
    }
}

function setState(state) {
    if (page.now === state) {
        return;
    }
    const before = page.now;
    page.now = state;
    page.state.className = `state ${state}`;
    page.state.replaceChildren(
        h("span", {class: "state-dot"}),
        h("span", {class: "state-word"}, t(`state.${state}`)),
    );
    page.banner.hidden = state === "up";
    page.banner.replaceChildren(
        icon("alert"),
        h("span", {}, state === "up" ? "" : t(`banner.${state}`)),
    );
    if (state === "up") {
        showFoot();
        if (before) {
            toast(t("state.back"), "good");
        }
    }
}

async function showFoot() {
    const {foot} = page;
    const {state} = await api.status().catch(() => ({}));
    foot.textContent = state ? t("store.state", {state, n: store.parameters.size}) : "";
}

// --- what the user does

function undoAll() {
    const {count} = store.pending();
    store.undoAll();
    toast(t("apply.undone", {n: count}));
}

async function apply() {
    const {count, conflicts, broken} = store.pending();
    const first = conflicts[0] ?? broken[0];
    if (first) {
        showFirst(first);
        return;
    }
    if (count === 0) {
        return;
    }
    page.bar.act.disabled = true;
    try {
        toast(t("apply.done", {n: await store.apply()}), "good");
        if (view.filter === "unsaved") {
            showFilter("all");
        }
    } catch (error) {
        toast(error.code === "refused" ? t("apply.refused") : reasonOf(error), "bad");
        if (error.details?.[0]) {
            showFirst(error.details[0].name);
        }
    } finally {
        page.bar.act.disabled = false;
    }
}

// Brings a parameter that needs a look into view and the focus to it.
function showFirst(name) {
    if (!page.list.reveal(name)) {
        showFilter("unsaved");
    }
    const element = page.list.reveal(name);
    const field = element?.querySelector(".note-actions button, input, select, textarea");
    field?.focus();
}

async function leave() {
    if (store.edits.size > 0 && !confirm(t("account.leave"))) {
        return;
    }
    store.undoAll();
    await api.logOut().catch(() => {});
    location.hash = "";
    location.reload();
}

const actions = {
    search(query) {
        view.query = query;
        showSettings();
    },
    filter(name) {
        view.filter = name;
        showSettings();
    },
    review: () => showFilter("unsaved"),
    groups: openGroups,
    undoAll,
    apply,
    leave,
    exported: () => exportDialog(view.group),
    imported: importDialog,
    reset: () => resetDialog(view.group),
    password: passwordDialog,
    accounts: () => (location.hash = "#accounts"),
};

document.addEventListener("keydown", (event) => {
    const typing = event.target.closest("input, select, textarea, dialog");
    if (!page || document.querySelector("dialog[open]")) {
        return;
    }
    if (event.key === "/" && !typing) {
        event.preventDefault();
        page.search.focus();
    } else if (event.key === "s" && (event.ctrlKey || event.metaKey)) {
        event.preventDefault();
        apply();
    } else if (event.key === "Escape" && page.shell.classList.contains("groups-open")) {
        openGroups(false);
        page.groups.focus();
    }
});

addEventListener("beforeunload", (event) => store.edits.size > 0 && event.preventDefault());
addEventListener("hashchange", () => page && route());

// --- who is logged in

async function enter(words) {
    for (;;) {
        try {
            return await (words ? signIn.logIn(words) : api.session());
        } catch (error) {
            const setup =
                error.code === "setup_needed" && (await api.setupState().catch(() => null));
            if (setup) {
                return signIn.setUp(setup);
            }
            if (error.status === 401) {
                return signIn.logIn("");
            }
            signIn.away();
            await new Promise((resolve) => setTimeout(resolve, AGAIN));
        }
    }
}

// Unsaved changes outlive the end of a session, for the one who made them.
async function start(words) {
    const before = account?.name;
    const session = await enter(words);
    account = session.account;
    if (before && before !== account.name) {
        store.undoAll();
    }
    page = createFrame(account, actions);
    page.tree = new Tree(page.treeElement, chooseGroup);
    page.list = new LongList(page.scroller, drawItem);
    setOrder(orderedNames());
    route();
    updateBar();
    connect(setState);
}

api.onSignedOut(() => {
    if (page) {
        disconnect();
        page = null;
        document.querySelectorAll("dialog").forEach((dialog) => dialog.close());
        start(t("sign_in.again"));
    }
});

await loadTexts();
start("");
