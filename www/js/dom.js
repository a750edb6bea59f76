// Small helpers that build page content from values as text nodes only:
// nothing that comes from the gateway or the request becomes markup.

export function el(tag, attributes = {}, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith("on")) node.addEventListener(name.slice(2), value);
    else if (value !== undefined && value !== null && value !== false) node.setAttribute(name, value === true ? "" : value);
  }
  node.append(...children.filter((c) => c !== undefined && c !== null));
  return node;
}

// Rows of a two-column facts table: [label, value] pairs.
export function factRows(tbodyId, rows) {
  document.getElementById(tbodyId).replaceChildren(
    ...rows.map(([label, value]) => el("tr", {}, el("th", { scope: "row" }, label), el("td", {}, String(value ?? "")))),
  );
}
