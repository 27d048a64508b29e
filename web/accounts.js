// The page of the accounts, for administrators.
import * as api from "./api.js";
import {h, icon, iconButton} from "./dom.js";
import {t} from "./i18n.js";
import {field, formDialog, reasonOf, toast} from "./dialogs.js";

export const ROLES = ["viewer", "operator", "administrator"];

function roleSelect(role, attributes) {
    const element = h(
        "select",
        attributes,
        ROLES.map((each) => h("option", {value: each}, t(`role.${each}`))),
    );
    element.value = role;
    return element;
}

// Draws the page into `place`, and again after each change. `self` is the account's own name.
export async function showAccounts(place, self) {
    const again = () => showAccounts(place, self);
    let list;
    try {
        list = await api.accounts();
    } catch (error) {
        toast(reasonOf(error), "bad");
        return;
    }
    const rows = list.map((account) => accountRow(account, account.name === self, again));
    const head = ["name", "role", "actions"].map((column) =>
        h("th", {scope: "col"}, t(`accounts.${column}`)),
    );
    place.replaceChildren(
        h(
            "div",
            {class: "accounts"},
            h(
                "header",
                {class: "accounts-head"},
                h("h1", {}, t("accounts.title")),
                h(
                    "button",
                    {type: "button", class: "primary", onclick: () => addDialog(again)},
                    t("accounts.add"),
                ),
            ),
            h("p", {class: "faint"}, t("accounts.words")),
            h("table", {}, h("thead", {}, h("tr", {}, head)), h("tbody", {}, rows)),
        ),
    );
}

function accountRow({name, role}, isSelf, again) {
    const roles = roleSelect(role, {
        "aria-label": t("accounts.role_of", {name}),
        onchange: async () => {
            await attempt(() => api.changeAccount(name, {role: roles.value}));
            again();
        },
    });
    return h(
        "tr",
        {},
        h("th", {scope: "row"}, name, isSelf && h("small", {}, ` ${t("accounts.self")}`)),
        h("td", {}, h("span", {class: "select"}, roles, icon("chevron"))),
        h(
            "td",
            {class: "account-actions"},
            h(
                "button",
                {type: "button", class: "small", onclick: () => resetPasswordDialog(name)},
                t("accounts.password"),
            ),
            iconButton("remove", t("accounts.remove", {name}), () => removeDialog(name, again)),
        ),
    );
}

async function attempt(act) {
    try {
        await act();
    } catch (error) {
        toast(reasonOf(error), "bad");
    }
}

const passwordField = () =>
    field(t("password.new"), {type: "password", autocomplete: "new-password"});

function addDialog(again) {
    const name = field(t("accounts.name"), {autocapitalize: "none", spellcheck: "false"});
    const password = passwordField();
    const role = roleSelect("viewer", {id: "new-role"});
    formDialog({
        title: t("accounts.add"),
        content: [
            name,
            h(
                "label",
                {class: "field"},
                h("span", {}, t("accounts.role")),
                h("span", {class: "select"}, role, icon("chevron")),
            ),
            password,
        ],
        action: t("accounts.add_action"),
        async submit() {
            await api.addAccount({
                name: name.input.value,
                role: role.value,
                password: password.input.value,
            });
            again();
        },
    });
}

function resetPasswordDialog(name) {
    const password = passwordField();
    formDialog({
        title: t("accounts.password_of", {name}),
        content: password,
        action: t("password.action"),
        async submit() {
            await api.changeAccount(name, {password: password.input.value});
            toast(t("password.done"));
        },
    });
}

function removeDialog(name, again) {
    formDialog({
        title: t("accounts.remove", {name}),
        content: h("p", {}, t("accounts.remove_words")),
        action: t("accounts.remove_action"),
        danger: true,
        async submit() {
            await api.removeAccount(name);
            again();
        },
    });
}
