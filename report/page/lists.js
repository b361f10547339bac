// What stands around map and table: summary, details of one account, and the short lists.

const LISTED = 7;

// Which accounts a filter keeps, by the kind in view. Summary, lists and table use the same rules.
const FILTERS = [
  { key: 'all', label: 'all accounts', keeps: () => true },
  { key: 'over', label: 'over the limit', keeps: (a, kind) => percentOf(a, kind) > 100 },
  {
    key: 'near',
    label: '90 to 100 % of the limit',
    keeps: (a, kind) => percentOf(a, kind) >= NEAR_LIMIT && percentOf(a, kind) <= 100,
  },
  { key: 'doubtful', label: 'in doubt: dirty or worse', keeps: (a) => a.state >= FIRST_DOUBTFUL },
  { key: 'old', label: 'older than a day', keeps: (a) => a.age > A_DAY },
];

function filterOf(key) {
  return FILTERS.find((filter) => filter.key === key);
}

function drawCards(place, scope, view, showFilter) {
  const card = (key, label, figure, style) =>
    element('button', { type: 'button', class: 'card ' + style, 'data-filter': key, click: () => showFilter(key) },
      element('span', { class: 'figure' }, figure), element('span', { class: 'label' }, label));
  const count = (key) => {
    const { keeps } = filterOf(key);
    return countText(scope.filter((account) => keeps(account, view.kind)).length);
  };
  const oldest = scope.reduce((age, account) => higher(age, account.age), null);
  place.replaceChildren(
    card('all', 'stored in ' + countText(scope.length) + ' accounts', bytesText(valueOf(view.root, view.kind)), ''),
    card('over', '\u25b2 over the limit', count('over'), 'over'),
    card('near', '\u25d5 at 90 to 100 %', count('near'), 'high'),
    card('doubtful', '\u2731 in doubt', count('doubtful'), 'doubt'),
    card('old', 'older than a day', count('old'), ''),
    card('all', 'the oldest figure', ageText(oldest), ''));
}

function shortList(title, found, figure, act) {
  const items = found.first.map((account) => element('li', null,
    element('button', { type: 'button', click: () => act(account) },
      loginElement(account), element('span', { class: 'figure' }, figure(account)))));
  const more = found.count - items.length;
  return element('div', { class: 'list' },
    element('h2', null, title),
    found.count === 0 ? element('p', { class: 'calm' }, 'none') : element('ol', null, ...items),
    element('p', { class: 'calm' }, more > 0 ? 'and ' + countText(more) + ' more' : ''));
}

// How many accounts there are for which `value` is above null and 0, and the greatest of them.
function ranked(scope, value) {
  const best = [];
  let count = 0;
  for (const account of scope) {
    const rank = value(account);
    if (!(rank > 0)) continue;
    ++count;
    if (best.length === LISTED && rank <= best[LISTED - 1].rank) continue;
    best.splice(best.findLastIndex((one) => one.rank >= rank) + 1, 0, { rank, account });
    best.length = Math.min(best.length, LISTED);
  }
  return { count, first: best.map((one) => one.account) };
}

function drawLists(place, scope, kind, act) {
  const consumed = (a) => (a.children.length === 0 ? valueOf(a, kind) : 0);
  const excess = (a) => (percentOf(a, kind) > 100 ? percentOf(a, kind) : 0);
  const doubt = (a) => (a.state >= FIRST_DOUBTFUL ? a.state : 0);
  const tooOld = (a) => (a.age > A_DAY ? a.age : 0);
  place.replaceChildren(
    shortList('Top consumers', ranked(scope, consumed), (a) => bytesText(valueOf(a, kind)), act),
    shortList('\u25b2 Over the limit', ranked(scope, excess), (a) => percentText(percentOf(a, kind)), act),
    shortList('\u2731 In doubt', ranked(scope, doubt), (a) => stateLabel(a.state, null), act),
    shortList('Older than a day', ranked(scope, tooOld), (a) => ageText(a.age), act));
}

function detailRow(account, kind) {
  const limited = account.limit[kind] !== null;
  const updates = account.updates && account.updates[kind];
  return element('tr', null,
    element('th', { scope: 'row' }, report.labels[kind]),
    element('td', { class: 'number' }, bytesText(account.used[kind]),
      element('br'), element('small', null, limited ? 'of ' + bytesText(account.limit[kind]) : '')),
    element('td', { class: 'number' }, limited ? percentLabel(percentOf(account, kind)) : ''),
    element('td', null, account === root ? '' : stateLabel(stateOf(account, kind), updates)));
}

function drawDetails(place, account) {
  const below = countText(account.children.length) + ' directly below';
  const facts = account === root ? below
    : levelText(account.level) + ', id ' + account.id + ', figures ' + ageText(account.age) + ' old';
  place.replaceChildren(
    element('h2', null, loginElement(account)),
    element('p', { class: 'calm' }, facts),
    element('p', { class: 'sum' }, bytesText(account.total)),
    element('p', null, bar(account.percent), percentOfLimits(account)),
    element('table', null, element('tbody', null, ...report.kinds.map((_, kind) => detailRow(account, kind)))),
    element('p', { class: 'calm' }, account !== root && account.children.length > 0 ? below : ''));
}
