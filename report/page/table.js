// The table: all accounts of a scope, of which only the rows in sight are elements.

const ROW_HEIGHT = 30;
const ROWS_AROUND = 12;
const PRINTED_ROWS = 200;

function kindContent(account, kind) {
  const used = bytesText(account.used[kind]);
  if (account.limit[kind] === null) return [used];
  return [used, element('small', null, ' / ' + bytesText(account.limit[kind]))];
}

function percentContent(account) {
  return [bar(account.percent), element('span', null, percentOfLimits(account))];
}

function parentContent(account) {
  return account.parent === root ? [] : [loginElement(account.parent)];
}

// `value` sorts, `content` fills the cell. Numbers are sorted from the greatest down at first.
function columns() {
  const text = (key, label, value, content) => ({ key, label, value, content, style: null });
  const number = (key, label, value, content) => ({ key, label, value, content, style: 'number' });
  return [
    text('login', 'Login', (a) => a.label.toLowerCase(), (a) => [loginElement(a)]),
    number('id', 'Id', (a) => a.id, (a) => [String(a.id)]),
    text('level', 'Level', (a) => a.level, (a) => [levelText(a.level)]),
    text('parent', 'Parent', (a) => (a.parent === root ? '' : a.parent.label.toLowerCase()), parentContent),
    number('total', 'Total', (a) => a.total, (a) => [element('strong', null, bytesText(a.total))]),
    number('percent', 'Of limit', (a) => a.percent, percentContent),
    ...report.labels.map((label, kind) =>
      number('kind' + kind, label, (a) => a.used[kind], (a) => kindContent(a, kind))),
    text('state', 'State', (a) => a.state, (a) => [stateLabel(a.state, sumOf(a.updates))]),
    number('age', 'Age', (a) => a.age, (a) => [ageText(a.age)]),
  ];
}

class AccountTable {
  // `actions`: open(account), select(account), clearSearch().
  constructor(place, actions) {
    this.place = place;
    this.actions = actions;
    this.columns = columns();
    this.sort = { key: 'total', down: true };
    this.rows = [];
    this.selected = null;
    this.build();
    place.addEventListener('scroll', () => requestAnimationFrame(() => this.drawRows()));
    place.addEventListener('keydown', (event) => this.key(event));
  }

  build() {
    this.heads = this.columns.map((column) => element('th', { scope: 'col', class: column.style },
      element('button', { type: 'button', 'data-sort': column.key, click: () => this.sortBy(column) },
        column.label)));
    const space = () => element('tbody', { class: 'space', 'aria-hidden': 'true' },
      element('tr', null, element('td', { colspan: this.columns.length })));
    this.above = space();
    this.below = space();
    this.body = element('tbody', { click: (event) => this.click(event) });
    this.table = element('table', null, element('thead', null, element('tr', null, ...this.heads)),
      this.above, this.body, this.below);
    this.place.append(this.table);
  }

  // Shows these accounts, sorted, from the top.
  show(rows) {
    this.rows = this.sorted(rows);
    this.place.scrollTop = 0;
    this.drawRows();
  }

  sortBy(column) {
    const again = this.sort.key === column.key;
    this.sort = { key: column.key, down: again ? !this.sort.down : column.style === 'number' };
    this.show(this.rows);
  }

  // Unknown figures go last, whichever way the others are sorted.
  sorted(rows) {
    const column = this.columns.find((one) => one.key === this.sort.key);
    const sign = this.sort.down ? -1 : 1;
    const last = sign * Infinity;
    const keys = new Array(accounts.length);
    for (const account of rows) keys[account.index] = column.value(account) ?? last;
    this.markHead(column);
    return rows.slice().sort((one, other) => {
      const a = keys[one.index];
      const b = keys[other.index];
      return a < b ? -sign : a > b ? sign : one.index - other.index;
    });
  }

  markHead(column) {
    this.heads.forEach((head, index) => {
      if (this.columns[index] !== column) head.removeAttribute('aria-sort');
      else head.setAttribute('aria-sort', this.sort.down ? 'descending' : 'ascending');
    });
  }

  drawRows() {
    const top = Math.floor(this.place.scrollTop / ROW_HEIGHT);
    const count = Math.ceil(this.place.clientHeight / ROW_HEIGHT) + 2 * ROWS_AROUND;
    this.drawSome(Math.max(0, top - ROWS_AROUND), count);
  }

  drawSome(first, count) {
    const shown = this.rows.slice(first, first + count);
    this.table.setAttribute('aria-rowcount', this.rows.length + 1);
    this.body.replaceChildren(...shown.map((account, index) => this.row(account, first + index)));
    this.setSpace(this.above, first);
    this.setSpace(this.below, this.rows.length - first - shown.length);
  }

  setSpace(space, rows) {
    space.hidden = rows === 0;
    space.firstChild.firstChild.style.height = rows * ROW_HEIGHT + 'px';
  }

  row(account, index) {
    return element('tr', {
      'data-row': index,
      'aria-rowindex': index + 2,
      class: account === this.selected ? 'selected' : null,
    }, ...this.columns.map((column) => element('td', { class: column.style }, ...column.content(account))));
  }

  // The first rows only: a table of all would be thousands of sheets.
  drawForPrint() {
    const count = Math.min(PRINTED_ROWS, this.rows.length);
    this.drawSome(0, count);
    this.below.hidden = true;
    return count;
  }

  click(event) {
    const row = event.target.closest('tr[data-row]');
    if (row !== null) this.actions.select(this.rows[Number(row.dataset.row)]);
  }

  // Marks an account, and scrolls to it where it is among the rows.
  select(account) {
    this.selected = account;
    const index = this.rows.indexOf(account);
    if (index >= 0) this.reveal(index);
    this.drawRows();
  }

  reveal(index) {
    const top = index * ROW_HEIGHT;
    const inSight = this.place.clientHeight - 3 * ROW_HEIGHT;
    if (top < this.place.scrollTop) this.place.scrollTop = top;
    else if (top > this.place.scrollTop + inSight) this.place.scrollTop = top - inSight;
  }

  key(event) {
    if (event.target !== this.place) return;
    const at = this.rows.indexOf(this.selected);
    const page = Math.max(1, Math.floor(this.place.clientHeight / ROW_HEIGHT) - 2);
    const goals = {
      ArrowDown: at + 1, ArrowUp: at - 1, PageDown: at + page, PageUp: at - page,
      Home: 0, End: this.rows.length - 1,
    };
    if (event.key in goals && this.rows.length > 0) {
      this.actions.select(this.rows[Math.max(0, Math.min(this.rows.length - 1, goals[event.key]))]);
    } else if (event.key === 'Enter' && at >= 0) this.actions.open(this.rows[at]);
    else if (event.key === 'Escape') this.actions.clearSearch();
    else return;
    event.preventDefault();
  }
}
