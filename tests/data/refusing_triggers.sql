-- Triggers that refuse one row each, with the reason 'refused': a terminal or
-- a topology node named 'bad', and a value updated to 666.
create trigger refuse_terminal before insert on LTUInfor when new.name = 'bad'
begin select raise(abort, 'refused'); end;
create trigger refuse_node before insert on TopoInfor when new.m_rln = 'bad'
begin select raise(abort, 'refused'); end;
create trigger refuse_value before update on DAValue when new.value = 666
begin select raise(abort, 'refused'); end;
