// The page: one view, and everything that changes it.

const view = {
  root, kind: ALL_KINDS, colour: 'limit', query: '', level: 0, filter: 'all', selected: root,
};
let scope = accounts;

const map = new Treemap(byId('map'), view, {
  open,
  up: () => { if (view.root.parent !== null) open(view.root.parent); },
  select,
  preview: (account) => drawDetails(byId('details'), account || view.selected),
  showTable: () => byId('table').focus(),
});

const table = new AccountTable(byId('table'), {
  open: (account) => open(account.children.length > 0 ? account : account.parent),
  select,
  clearSearch: () => { byId('search').value = ''; changeSearch(); },
});

// Opens an account: map, lists and table are about what is below it.
function open(account) {
  view.root = account;
  view.selected = account;
  scope = account === root ? accounts : accounts.filter((one) => isBelow(one, account));
  drawAll();
}

function select(account) {
  view.selected = account;
  drawDetails(byId('details'), account);
  table.select(account);
}

function drawAll() {
  drawPath();
  drawLegend();
  map.draw();
  drawDetails(byId('details'), view.selected);
  drawCards(byId('cards'), scope, view, showFilter);
  drawLists(byId('lists'), scope, view.kind, select);
  drawTable();
}

function drawPath() {
  const steps = [];
  for (let account = view.root; account !== null; account = account.parent) steps.unshift(account);
  byId('path').replaceChildren(...steps.map((account) => element('button', {
    type: 'button', click: () => open(account), 'aria-current': account === view.root ? 'location' : null,
  }, loginElement(account))));
}

function drawLegend() {
  const entries = {
    limit: BANDS.map((band) => [band.name, band.mark + band.label]),
    kind: report.labels.map((label, kind) => ['kind' + kind, label]),
    state: report.states.map((_, state) => ['state' + state, stateLabel(state, null)]),
  };
  byId('legend').replaceChildren(...entries[view.colour].map(([style, label]) =>
    element('li', null, element('span', { class: 'swatch ' + style }), label)));
}

function drawTable() {
  const query = view.query.trim().toLowerCase();
  const { keeps } = filterOf(view.filter);
  const rows = scope.filter((account) => keeps(account, view.kind) &&
    (view.level === 0 || account.level === view.level) &&
    (query === '' || account.label.toLowerCase().includes(query) || String(account.id) === query));
  byId('count').textContent = countText(rows.length) + ' of ' + countText(scope.length);
  table.show(rows);
}

function showFilter(key) {
  byId('filter').value = key;
  changeSearch();
  byId('table').focus();
}

function changeSearch() {
  view.query = byId('search').value;
  view.level = Number(byId('level').value);
  view.filter = byId('filter').value;
  drawTable();
}

function changeMap() {
  view.kind = Number(byId('controls').elements.kind.value);
  view.colour = byId('colour').value;
  drawLegend();
  map.draw();
  drawCards(byId('cards'), scope, view, showFilter);
  drawLists(byId('lists'), scope, view.kind, select);
  drawTable();
}

function buildControls() {
  const choices = [[ALL_KINDS, 'All'], ...report.labels.map((label, kind) => [kind, label])];
  byId('kind-choice').append(...choices.map(([kind, label]) => element('label', null,
    element('input', { type: 'radio', name: 'kind', value: kind, checked: kind === ALL_KINDS ? '' : null }),
    element('span', null, label))));
  byId('controls').addEventListener('change', changeMap);
  byId('controls').addEventListener('submit', (event) => event.preventDefault());
  const levels = [...new Set(accounts.map((account) => account.level))].sort((a, b) => a - b);
  byId('level').append(element('option', { value: 0 }, 'all levels'),
    ...levels.map((level) => element('option', { value: level }, levelText(level) + 's')));
  byId('filter').append(...FILTERS.map((filter) => element('option', { value: filter.key }, filter.label)));
  for (const id of ['search', 'level', 'filter']) byId(id).addEventListener('input', changeSearch);
}

function addKeys() {
  byId('search').addEventListener('keydown', (event) => {
    if (event.key === 'ArrowDown' || event.key === 'Enter') byId('table').focus();
  });
  document.addEventListener('keydown', (event) => {
    if (event.key !== '/' || event.target.closest('[type=search], select')) return;
    event.preventDefault();
    byId('search').focus();
  });
}

function addPrinting() {
  window.addEventListener('beforeprint', () => {
    const printed = table.drawForPrint();
    byId('print-note').textContent = 'The first ' + countText(printed) + ' of ' +
      countText(table.rows.length) + ' accounts, in the order of the table.';
  });
  window.addEventListener('afterprint', () => table.drawRows());
}

function watchWidth() {
  let width = byId('map').clientWidth;
  new ResizeObserver(() => {
    if (byId('map').clientWidth === width) return;
    width = byId('map').clientWidth;
    map.draw();
  }).observe(byId('map'));
}

document.title = 'Storage of ' + showText(report.host);
byId('origin').textContent =
  showText(report.host) + ', ' + report.taken.replace('T', ' ').replace('Z', ' UTC');
buildControls();
addKeys();
addPrinting();
drawAll();
watchWidth();
// Measured where the first picture stands, for those who look at the page's speed.
requestAnimationFrame(() => setTimeout(() => performance.mark('drawn')));
