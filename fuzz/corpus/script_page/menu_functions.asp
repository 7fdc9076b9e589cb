<!-- #include file="includes/cells.asp" -->
<%
Function CustomFooter()
  CustomFooter = "<p>" & GetINISetting("Framework", "visits", "0", "tavrel.ini") & " visits, the last with " & Request.Form("clientinput") & Request.QueryString("from") & "</p>"
End Function
%>
